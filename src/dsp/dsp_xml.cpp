#include "dsp/dsp_xml.h"

#include <libxml/parser.h>
#include <libxml/tree.h>

#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <set>

#include "base/handles.h"
#include "base/log.h"
#include "base/stringutil.h"

namespace korvo {

namespace {

// A semantic error: the element's line and what is wrong with it.
struct XmlError {
  int line;
  std::string what;
};

bool is(const xmlNode* n, const char* name) { return xmlStrcmp(n->name, BAD_CAST name) == 0; }
int lineOf(const xmlNode* n) { return static_cast<int>(xmlGetLineNo(n)); }
const char* nameOf(const xmlNode* n) { return reinterpret_cast<const char*>(n->name); }

std::optional<std::string> attr(const xmlNode* n, const char* name) {
  xmlChar* v = xmlGetProp(n, BAD_CAST name);
  if (!v) return std::nullopt;
  std::string s(reinterpret_cast<const char*>(v));
  xmlFree(v);
  return s;
}

// Decimal or 0x-hexadecimal, the whole text, within [lo, hi].
long number(const xmlNode* n, const char* name, long lo, long hi, std::optional<long> fallback = std::nullopt) {
  const auto text = attr(n, name);
  if (!text) {
    if (fallback) return *fallback;
    throw XmlError{lineOf(n), strFormat("<%s> needs %s", nameOf(n), name)};
  }
  errno = 0;
  char* end = nullptr;
  const long v = std::strtol(text->c_str(), &end, 0);
  if (text->empty() || *end != '\0' || errno == ERANGE || v < lo || v > hi)
    throw XmlError{lineOf(n), strFormat("%s=\"%s\" of <%s> is not a number in %ld..%ld", name, text->c_str(),
                                        nameOf(n), lo, hi)};
  return v;
}

std::vector<uint8_t> hexBytes(const xmlNode* n) {
  xmlChar* content = xmlNodeGetContent(n);
  std::string text(content ? reinterpret_cast<const char*>(content) : "");
  xmlFree(content);
  std::vector<uint8_t> out;
  for (std::size_t i = 0; i < text.size();) {
    if (std::isspace(static_cast<unsigned char>(text[i]))) {
      ++i;
      continue;
    }
    if (i + 1 >= text.size() || !std::isxdigit(static_cast<unsigned char>(text[i])) ||
        !std::isxdigit(static_cast<unsigned char>(text[i + 1])))
      throw XmlError{lineOf(n), "<write> holds something other than hexadecimal byte pairs"};
    out.push_back(static_cast<uint8_t>(std::stoi(text.substr(i, 2), nullptr, 16)));
    i += 2;
  }
  if (out.empty()) throw XmlError{lineOf(n), "<write> without data"};
  return out;
}

void readProgram(const xmlNode* program, DspDefinition& d) {
  for (const xmlNode* n = program->children; n; n = n->next) {
    if (n->type != XML_ELEMENT_NODE) continue;
    if (!is(n, "write")) throw XmlError{lineOf(n), strFormat("unknown element <%s> in <program>", nameOf(n))};
    d.program.push_back({static_cast<uint16_t>(number(n, "address", 0, 0xFFFF)), hexBytes(n)});
  }
}

DspTarget readTarget(const xmlNode* n) {
  DspTarget t;
  if (is(n, "butterworth")) {
    t.kind = DspTarget::BUTTERWORTH;
    const std::string kind = attr(n, "kind").value_or("");
    if (kind != "lowpass" && kind != "highpass")
      throw XmlError{lineOf(n), strFormat("kind=\"%s\" of <butterworth> is not lowpass or highpass", kind.c_str())};
    t.highpass = kind == "highpass";
    t.order = static_cast<int>(number(n, "order", 1, 8));
  } else if (is(n, "gain")) {
    t.kind = DspTarget::GAIN;
  } else if (is(n, "word")) {
    t.kind = DspTarget::WORD;
  } else {
    throw XmlError{lineOf(n), strFormat("unknown target <%s>", nameOf(n))};
  }
  t.address = static_cast<uint16_t>(number(n, "address", 0, kDspParameterWords - 1));
  if (t.address + t.words() > kDspParameterWords)
    throw XmlError{lineOf(n), strFormat("<%s> at 0x%04X runs past the parameter memory", nameOf(n), t.address)};
  return t;
}

bool validName(const std::string& s) {
  if (s.empty() || s.size() > 40) return false;
  for (char c : s)
    if (!std::isalnum(static_cast<unsigned char>(c)) && c != '_') return false;
  return true;
}

DspSettingDef readSetting(const xmlNode* n) {
  DspSettingDef s;
  s.line = lineOf(n);
  s.name = attr(n, "name").value_or("");
  if (!validName(s.name)) throw XmlError{s.line, strFormat("setting name '%s' is not a key", s.name.c_str())};
  s.min = static_cast<int>(number(n, "min", INT_MIN, INT_MAX));
  s.max = static_cast<int>(number(n, "max", s.min, INT_MAX));
  s.value = static_cast<int>(number(n, "value", INT_MIN, INT_MAX));
  s.unit = attr(n, "unit").value_or("");
  for (const xmlNode* c = n->children; c; c = c->next)
    if (c->type == XML_ELEMENT_NODE) s.targets.push_back(readTarget(c));
  if (s.targets.empty()) throw XmlError{s.line, strFormat("setting %s has no target", s.name.c_str())};
  return s;
}

void readRoot(const xmlNode* root, DspDefinition& d) {
  if (!root || !is(root, "dsp")) throw XmlError{root ? lineOf(root) : 1, "the root element is not <dsp>"};
  d.part = attr(root, "part").value_or("");
  d.i2cAddress = static_cast<int>(number(root, "i2c", 0x03, 0x77, 0x34));
  const std::string format = attr(root, "format").value_or("5.23");
  if (format != "5.23" && format != "8.24")
    throw XmlError{lineOf(root), strFormat("format \"%s\" is not 5.23 or 8.24", format.c_str())};
  d.format = format == "5.23" ? DspFormat::Q5_23 : DspFormat::Q8_24;
  d.rate = static_cast<int>(number(root, "rate", 8000, 192000, 48000));
  std::set<std::string> names;
  for (const xmlNode* n = root->children; n; n = n->next) {
    if (n->type != XML_ELEMENT_NODE) continue;
    if (is(n, "program")) {
      readProgram(n, d);
    } else if (is(n, "setting")) {
      d.settings.push_back(readSetting(n));
      if (!names.insert(d.settings.back().name).second)
        throw XmlError{lineOf(n), strFormat("setting %s defined twice", d.settings.back().name.c_str())};
    } else if (is(n, "led")) {
      d.hasLed = true;
      d.ledAddress = static_cast<uint16_t>(number(n, "address", 0, 0xFFFF));
      d.ledMask = static_cast<uint16_t>(number(n, "mask", 1, 0xFFFF, 1));
    } else {
      throw XmlError{lineOf(n), strFormat("unknown element <%s>", nameOf(n))};
    }
  }
}

}  // namespace

std::optional<DspDefinition> parseDspXml(std::string_view text, const std::string& name) {
  xmlResetLastError();
  XmlDocHandle doc(xmlReadMemory(text.data(), static_cast<int>(text.size()), name.c_str(), nullptr,
                                 XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING));
  if (!doc) {
    const xmlError* e = xmlGetLastError();
    std::string msg = e && e->message ? e->message : "not well formed";
    while (!msg.empty() && std::isspace(static_cast<unsigned char>(msg.back()))) msg.pop_back();
    LOG(LEVEL_ERROR, "dsp definition %s:%d: %s", name.c_str(), e ? e->line : 0, msg.c_str());
    return std::nullopt;
  }
  DspDefinition d;
  try {
    readRoot(xmlDocGetRootElement(doc.get()), d);
  } catch (const XmlError& e) {
    LOG(LEVEL_ERROR, "dsp definition %s:%d: %s", name.c_str(), e.line, e.what.c_str());
    return std::nullopt;
  }
  return d;
}

std::optional<DspDefinition> readDspXml(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    LOG(LEVEL_ERROR, "dsp definition %s cannot be read", path.c_str());
    return std::nullopt;
  }
  const std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  return parseDspXml(text, path);
}

}  // namespace korvo
