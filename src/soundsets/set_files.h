// Small readers and writers of the per-directory files of a sound set (serial.txt,
// shaker.txt, the set configuration) and the file-name rules the scanners share.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace korvo {

// true for names not beginning with "." that end, case-sensitively, in ".ogg", ".wav"
// or ".mp3".
bool isAudioFileType(std::string_view fileName);
// The entry of `dir` whose name equals `name` ignoring case, as "dir/entry" spelled as
// on disk; empty when there is none or the directory cannot be read.
std::string getFileByName(const std::string& dir, std::string_view name);
// "serial.txt" of `dir`: 1 and the first line (trailing white space removed) when it
// is non-empty, else 0 and `out` empty.
int getSerialCmds(const std::string& dir, std::string& out);
// "shaker.txt" of `dir` / a text: the integers separated by any of ",; \t\n" (atoi of
// each token, so junk gives 0). Returns the count.
int getShakerSequence(const std::string& dir, std::vector<uint32_t>& out);
int parseShakerSequence(std::string_view text, std::vector<uint32_t>& out);
int countElements(std::string_view text, std::string_view delimiters);
int checkRange(int min, int max, int value);
// Writes key=value into dir/fileName: every line starting with `key` is replaced, or
// the line is appended; a missing file is created with a comment line first. The file
// is replaced atomically.
void updateConfig(const std::string& dir, const std::string& fileName, std::string_view key, int value);

}  // namespace korvo
