#include "video/dbus_args.h"

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <string_view>

#include "base/log.h"

namespace korvo {

namespace {

// The name the error texts start with, as the dbus-send tool puts its own name there.
constexpr const char* kApp = "omxPlayerCall";

// One parsed basic value, validated so that libdbus accepts it.
struct BasicValue {
  int type = DBUS_TYPE_INVALID;
  union {
    dbus_int64_t i64;
    dbus_uint64_t u64;
    double d;
    dbus_bool_t b;
    unsigned char byte;
  } n{};
  std::string text;  // string and objpath
};

void badlyFormed(std::string_view item) {
  LOG(LEVEL_ERROR, "%s: Data item \"%.*s\" is badly formed", kApp, static_cast<int>(item.size()), item.data());
}

bool parseSigned(const std::string& s, long long lo, long long hi, dbus_int64_t& out) {
  if (s.empty()) return false;
  errno = 0;
  char* end = nullptr;
  const long long v = std::strtoll(s.c_str(), &end, 0);
  if (errno != 0 || *end != '\0' || v < lo || v > hi) return false;
  out = v;
  return true;
}

bool parseUnsigned(const std::string& s, unsigned long long hi, dbus_uint64_t& out) {
  if (s.empty() || s[0] == '-') return false;
  errno = 0;
  char* end = nullptr;
  const unsigned long long v = std::strtoull(s.c_str(), &end, 0);
  if (errno != 0 || *end != '\0' || v > hi) return false;
  out = v;
  return true;
}

// Parses `text` as a value of basic `type`; false with an ERROR line.
bool parseBasic(int type, std::string_view text, BasicValue& out) {
  const std::string s(text);
  out.type = type;
  bool ok = true;
  switch (type) {
    case DBUS_TYPE_STRING:
      ok = dbus_validate_utf8(s.c_str(), nullptr) && s.size() == std::strlen(s.c_str());
      out.text = s;
      break;
    case DBUS_TYPE_OBJECT_PATH:
      ok = dbus_validate_path(s.c_str(), nullptr);
      out.text = s;
      break;
    case DBUS_TYPE_INT16: ok = parseSigned(s, INT16_MIN, INT16_MAX, out.n.i64); break;
    case DBUS_TYPE_INT32: ok = parseSigned(s, INT32_MIN, INT32_MAX, out.n.i64); break;
    case DBUS_TYPE_INT64: ok = parseSigned(s, INT64_MIN, INT64_MAX, out.n.i64); break;
    case DBUS_TYPE_UINT16: ok = parseUnsigned(s, UINT16_MAX, out.n.u64); break;
    case DBUS_TYPE_UINT32: ok = parseUnsigned(s, UINT32_MAX, out.n.u64); break;
    case DBUS_TYPE_UINT64: ok = parseUnsigned(s, UINT64_MAX, out.n.u64); break;
    case DBUS_TYPE_BYTE: {
      dbus_uint64_t v = 0;
      ok = parseUnsigned(s, 255, v);
      out.n.byte = static_cast<unsigned char>(v);
      break;
    }
    case DBUS_TYPE_DOUBLE: {
      char* end = nullptr;
      out.n.d = s.empty() ? 0.0 : std::strtod(s.c_str(), &end);
      ok = !s.empty() && *end == '\0';
      break;
    }
    case DBUS_TYPE_BOOLEAN:
      if (s == "true" || s == "false") {
        out.n.b = s == "true";
        return true;
      }
      LOG(LEVEL_ERROR, "%s: Expected \"true\" or \"false\" instead of \"%s\"", kApp, s.c_str());
      return false;
    default:
      LOG(LEVEL_ERROR, "%s: Unsupported data type %c", kApp, static_cast<char>(type));
      return false;
  }
  if (!ok) badlyFormed(text);
  return ok;
}

bool appendBasic(DBusMessageIter* it, const BasicValue& v) {
  switch (v.type) {
    case DBUS_TYPE_STRING:
    case DBUS_TYPE_OBJECT_PATH: {
      const char* p = v.text.c_str();
      return dbus_message_iter_append_basic(it, v.type, &p);
    }
    case DBUS_TYPE_INT16: {
      const dbus_int16_t x = static_cast<dbus_int16_t>(v.n.i64);
      return dbus_message_iter_append_basic(it, v.type, &x);
    }
    case DBUS_TYPE_INT32: {
      const dbus_int32_t x = static_cast<dbus_int32_t>(v.n.i64);
      return dbus_message_iter_append_basic(it, v.type, &x);
    }
    case DBUS_TYPE_UINT16: {
      const dbus_uint16_t x = static_cast<dbus_uint16_t>(v.n.u64);
      return dbus_message_iter_append_basic(it, v.type, &x);
    }
    case DBUS_TYPE_UINT32: {
      const dbus_uint32_t x = static_cast<dbus_uint32_t>(v.n.u64);
      return dbus_message_iter_append_basic(it, v.type, &x);
    }
    case DBUS_TYPE_INT64: return dbus_message_iter_append_basic(it, v.type, &v.n.i64);
    case DBUS_TYPE_UINT64: return dbus_message_iter_append_basic(it, v.type, &v.n.u64);
    case DBUS_TYPE_DOUBLE: return dbus_message_iter_append_basic(it, v.type, &v.n.d);
    case DBUS_TYPE_BOOLEAN: return dbus_message_iter_append_basic(it, v.type, &v.n.b);
    case DBUS_TYPE_BYTE: return dbus_message_iter_append_basic(it, v.type, &v.n.byte);
    default: return false;
  }
}

// Splits at the first ':'; false when there is none.
bool splitType(std::string_view s, std::string_view& type, std::string_view& rest) {
  const std::size_t colon = s.find(':');
  if (colon == std::string_view::npos) return false;
  type = s.substr(0, colon);
  rest = s.substr(colon + 1);
  return true;
}

// The type code of a name that must be basic; DBUS_TYPE_INVALID with an ERROR line.
int basicTypeOf(std::string_view name) {
  const std::string n(name);
  const int t = type_from_name(n.c_str());
  if (t == DBUS_TYPE_INVALID) LOG(LEVEL_ERROR, "%s: Unknown type \"%s\"", kApp, n.c_str());
  return t;
}

std::vector<std::string_view> splitItems(std::string_view items) {
  std::vector<std::string_view> out;
  if (items.empty()) return out;
  for (std::size_t start = 0;;) {
    const std::size_t comma = items.find(',', start);
    out.push_back(items.substr(start, comma == std::string_view::npos ? std::string_view::npos : comma - start));
    if (comma == std::string_view::npos) break;
    start = comma + 1;
  }
  return out;
}

bool parseItems(int type, const std::vector<std::string_view>& items, std::vector<BasicValue>& out) {
  for (std::string_view item : items) {
    BasicValue v;
    if (!parseBasic(type, item, v)) return false;
    out.push_back(std::move(v));
  }
  return true;
}

bool append_array(DBusMessageIter* iter, std::string_view arg, std::string_view rest) {
  std::string_view elem, items;
  if (!splitType(rest, elem, items)) {
    badlyFormed(arg);
    return false;
  }
  const int t = basicTypeOf(elem);
  std::vector<BasicValue> values;
  if (t == DBUS_TYPE_INVALID || !parseItems(t, splitItems(items), values)) return false;
  const char sig[2] = {static_cast<char>(t), '\0'};
  DBusMessageIter sub;
  if (!dbus_message_iter_open_container(iter, DBUS_TYPE_ARRAY, sig, &sub)) return false;
  for (const BasicValue& v : values) appendBasic(&sub, v);
  return dbus_message_iter_close_container(iter, &sub);
}

bool append_dict(DBusMessageIter* iter, std::string_view arg, std::string_view rest) {
  std::string_view keyName, more, valueName, items;
  if (!splitType(rest, keyName, more) || !splitType(more, valueName, items)) {
    badlyFormed(arg);
    return false;
  }
  const int kt = basicTypeOf(keyName);
  if (kt == DBUS_TYPE_INVALID) return false;
  const int vt = basicTypeOf(valueName);
  if (vt == DBUS_TYPE_INVALID) return false;
  const std::vector<std::string_view> parts = splitItems(items);
  if (parts.size() % 2 != 0) {
    LOG(LEVEL_ERROR, "%s: Malformed dictionary", kApp);
    return false;
  }
  std::vector<BasicValue> keys, values;
  for (std::size_t i = 0; i < parts.size(); i += 2) {
    BasicValue k, v;
    if (!parseBasic(kt, parts[i], k) || !parseBasic(vt, parts[i + 1], v)) return false;
    keys.push_back(std::move(k));
    values.push_back(std::move(v));
  }
  const char sig[5] = {'{', static_cast<char>(kt), static_cast<char>(vt), '}', '\0'};
  DBusMessageIter array;
  if (!dbus_message_iter_open_container(iter, DBUS_TYPE_ARRAY, sig, &array)) return false;
  for (std::size_t i = 0; i < keys.size(); i++) {
    DBusMessageIter entry;
    dbus_message_iter_open_container(&array, DBUS_TYPE_DICT_ENTRY, nullptr, &entry);
    appendBasic(&entry, keys[i]);
    appendBasic(&entry, values[i]);
    dbus_message_iter_close_container(&array, &entry);
  }
  return dbus_message_iter_close_container(iter, &array);
}

bool append_variant(DBusMessageIter* iter, std::string_view arg, std::string_view rest) {
  std::string_view inner, value;
  if (!splitType(rest, inner, value)) {
    badlyFormed(arg);
    return false;
  }
  const int t = basicTypeOf(inner);
  BasicValue v;
  if (t == DBUS_TYPE_INVALID || !parseBasic(t, value, v)) return false;
  const char sig[2] = {static_cast<char>(t), '\0'};
  DBusMessageIter sub;
  if (!dbus_message_iter_open_container(iter, DBUS_TYPE_VARIANT, sig, &sub)) return false;
  appendBasic(&sub, v);
  return dbus_message_iter_close_container(iter, &sub);
}

bool append_arg(DBusMessageIter* iter, std::string_view arg) {
  std::string_view type, rest;
  if (!splitType(arg, type, rest)) {
    badlyFormed(arg);
    return false;
  }
  if (type == "array") return append_array(iter, arg, rest);
  if (type == "dict") return append_dict(iter, arg, rest);
  if (type == "variant") return append_variant(iter, arg, rest);
  const int t = basicTypeOf(type);
  BasicValue v;
  if (t == DBUS_TYPE_INVALID || !parseBasic(t, rest, v)) return false;
  return appendBasic(iter, v);
}

}  // namespace

int type_from_name(const char* name) {
  static const struct {
    const char* name;
    int type;
  } kTypes[] = {
      {"string", DBUS_TYPE_STRING}, {"int16", DBUS_TYPE_INT16},   {"uint16", DBUS_TYPE_UINT16},
      {"int32", DBUS_TYPE_INT32},   {"uint32", DBUS_TYPE_UINT32}, {"int64", DBUS_TYPE_INT64},
      {"uint64", DBUS_TYPE_UINT64}, {"double", DBUS_TYPE_DOUBLE}, {"byte", DBUS_TYPE_BYTE},
      {"boolean", DBUS_TYPE_BOOLEAN}, {"objpath", DBUS_TYPE_OBJECT_PATH},
  };
  for (const auto& t : kTypes)
    if (std::strcmp(name, t.name) == 0) return t.type;
  return DBUS_TYPE_INVALID;
}

bool addArgsFromList(DBusMessage* msg, const std::vector<std::string>& args) {
  DBusMessageIter iter;
  dbus_message_iter_init_append(msg, &iter);
  int n = 0;
  for (const std::string& arg : args) {
    LOG(LEVEL_DEBUG, "Parse %d. arg: %s", ++n, arg.c_str());
    if (!append_arg(&iter, arg)) return false;
  }
  return true;
}

}  // namespace korvo
