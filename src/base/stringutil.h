// Small string helpers over std::string_view. Where a C caller would pass a null
// pointer, these take an empty view and answer as for null: 0, false or nullopt.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace korvo {

std::optional<std::string> save_strdup(const char* s);
// "0x"/"0X" prefix: hexadecimal of the rest, else decimal; 0 when there are no digits.
int readInt(std::string_view s);
// Splits at runs of delimiter characters. Returns the number of delimiter runs (one
// less than the number of parts); a trailing run yields an empty last part. At most
// `max` parts are stored in `parts`.
int split(std::string_view s, std::string_view delims, std::vector<std::string_view>& parts, int max);
// The part behind the last '/' that is not the final character ("a/b/" gives "b/").
std::string_view _basename(std::string_view path);
inline bool isEmptyString(std::string_view s) { return s.empty(); }
inline bool isNotEmptyString(std::string_view s) { return !s.empty(); }
inline bool isEmptyString(const char* s) { return s == nullptr || *s == '\0'; }
inline bool isNotEmptyString(const char* s) { return !isEmptyString(s); }
inline bool isLineEnd(char c) { return c == '\r' || c == '\n'; }
// Case-insensitive; false when the affix is longer than s.
bool startsWith(std::string_view s, std::string_view prefix);
bool endsWith(std::string_view s, std::string_view suffix);
bool startsWithMatchCase(std::string_view s, std::string_view prefix);
// Compares at most n characters after lower-casing both; stops at the end of a.
int _strnicmp(std::string_view a, std::string_view b, std::size_t n);
// Every non-overlapping occurrence of `old` replaced by `repl`; nullopt when `old` is empty.
std::optional<std::string> str_replace(std::string_view s, std::string_view old, std::string_view repl);
// Removes trailing LF, CR and blanks in place.
void trim_right(std::string& s);
std::string_view trim_right(std::string_view s);
std::string_view trim(std::string_view s);
int hexToInt(char c);
// '+' becomes a blank, "%HH" that byte; anything else (a '%' without two hex digits) stays.
std::string urlDecode(std::string_view s);
std::string toLower(std::string_view s);
bool equalsIgnoreCase(std::string_view a, std::string_view b);
// printf into a std::string.
std::string strFormat(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

}  // namespace korvo
