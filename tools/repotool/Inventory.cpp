#include "repotool/Inventory.h"

#include <stdexcept>

namespace inventory {

namespace {

// The support pack the sample machine has: every update element takes its version from it.
const char kSupportPackType[] = "KordSupportPack-Win";

struct Element {
  std::string digits;  // the leading digit run as written
  std::string rest;
};

std::vector<Element> Split(const std::string& version) {
  std::vector<Element> elements;
  size_t start = 0;
  while (true) {
    size_t end = version.find('.', start);
    std::string text = version.substr(start, end == std::string::npos ? std::string::npos : end - start);
    size_t digits = 0;
    while (digits < text.size() && text[digits] >= '0' && text[digits] <= '9') ++digits;
    elements.push_back({text.substr(0, digits), text.substr(digits)});
    if (end == std::string::npos) return elements;
    start = end + 1;
  }
}

std::string Join(const std::vector<Element>& elements) {
  std::string text;
  for (size_t i = 0; i < elements.size(); ++i) text += (i > 0 ? "." : "") + elements[i].digits + elements[i].rest;
  return text;
}

// The digit run's number as decimal text without leading zeros; "" for 0.
std::string Number(const std::string& digits) {
  size_t first = digits.find_first_not_of('0');
  return first == std::string::npos ? "" : digits.substr(first);
}

// Decimal text of any length, so that a long digit run cannot overflow; "" counts as 0.
std::string Increment(std::string digits) {
  size_t i = digits.size();
  while (i > 0 && digits[i - 1] == '9') digits[--i] = '0';
  if (i == 0) return "1" + digits;
  ++digits[i - 1];
  return digits;
}

// `digits` is a Number() that is not 0.
std::string Decrement(std::string digits) {
  size_t i = digits.size();
  while (digits[i - 1] == '0') digits[--i] = '9';
  --digits[i - 1];
  std::string number = Number(digits);
  return number.empty() ? "0" : number;
}

bool IsUtf8(const std::string& text) {
  for (size_t i = 0; i < text.size();) {
    unsigned char c = static_cast<unsigned char>(text[i]);
    size_t length = c < 0x80 ? 1 : (c >> 5) == 0x6 ? 2 : (c >> 4) == 0xE ? 3 : (c >> 3) == 0x1E ? 4 : 0;
    if (length == 0 || i + length > text.size()) return false;
    uint32_t code = length == 1 ? c : c & (0x7F >> length);
    for (size_t j = 1; j < length; ++j) {
      unsigned char next = static_cast<unsigned char>(text[i + j]);
      if ((next & 0xC0) != 0x80) return false;
      code = code << 6 | (next & 0x3F);
    }
    static const uint32_t kLeast[] = {0, 0, 0x80, 0x800, 0x10000};
    if (code < kLeast[length] || code > 0x10FFFF || (code >= 0xD800 && code <= 0xDFFF)) return false;
    i += length;
  }
  return true;
}

bool IsHex4(const std::string& text) {
  if (text.size() != 4) return false;
  for (char c : text)
    if (!((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F'))) return false;
  return true;
}

std::string Upper(std::string text) {
  for (char& c : text)
    if (c >= 'a' && c <= 'f') c = static_cast<char>(c - 'a' + 'A');
  return text;
}

std::string Value(const Leaf& leaf, const std::string& key) {
  for (const auto& [k, v] : leaf.component)
    if (k == key) return v;
  return "";
}

// The engine identifies a PCI device by its hardware id, anything else by its name.
std::string ComponentId(const Leaf& leaf, const std::string& objectName) {
  std::string pciId = Value(leaf, "pciId");
  if (pciId.empty()) return objectName;
  size_t colon = pciId.find(':');
  if (colon == std::string::npos || !IsHex4(pciId.substr(0, colon)) || !IsHex4(pciId.substr(colon + 1)))
    throw std::runtime_error(leaf.relPath + ": pciId " + pciId + " is not vendor:device of four hex digits each");
  return "PCI\\VEN_" + Upper(pciId.substr(0, colon)) + "&DEV_" + Upper(pciId.substr(colon + 1));
}

std::string Section(const std::string& type, const std::string& subtype, const std::string& objectName,
                    const std::string& version, const std::string& compId, const std::string& description) {
  return "\r\n[component]\r\ntype=" + type + "\r\nsubtype=" + subtype + "\r\nobjectName=" + objectName +
         "\r\nversion=" + version + "\r\ncompId=" + compId + "\r\ndescription=" + description + "\r\n";
}

}  // namespace

State StateOf(size_t k) {
  return static_cast<State>(k % 5);
}

std::string NewerVersion(const std::string& version) {
  std::vector<Element> elements = Split(version);
  elements[0].digits = Increment(Number(elements[0].digits));
  return Join(elements);
}

std::optional<std::string> OlderVersion(const std::string& version) {
  std::vector<Element> elements = Split(version);
  for (Element& e : elements)
    if (!Number(e.digits).empty()) {
      e.digits = Decrement(Number(e.digits));
      return Join(elements);
    }
  return std::nullopt;
}

Result Text(const std::vector<Leaf>& leaves, const std::string& os, int64_t maxComponents) {
  if (maxComponents < 1) throw std::runtime_error("an inventory holds at least the support pack");
  // The reader drops blanks around a value and ends a line at CR or LF: such an os would come
  // back as another text.
  if (os.empty() || os.front() == ' ' || os.back() == ' ' || os.find_first_of("\t\r\n") != std::string::npos ||
      !IsUtf8(os))
    throw std::runtime_error("--os needs a UTF-8 text without TAB, line breaks or blanks at its ends");
  Result result;
  result.text = "# Installed components of the simulated update engine (repotool inventory)\r\n[system]\r\nos=" + os +
                "\r\n" + Section(kSupportPackType, "SupportPack", "SupportPack", "4.1.0", "KPK-4.1.0", "Support pack");
  result.components = 1;
  size_t k = 0;
  // Every leaf is checked, also those behind the cut: --max never decides whether a folder is fine.
  for (const Leaf& leaf : leaves) {
    if (!leaf.HasPackage()) continue;
    State state = StateOf(k++);
    std::string type = Value(leaf, "type"), subtype = Value(leaf, "subtype"), objectName = Value(leaf, "objectName");
    std::string version = Value(leaf, "version");
    for (const std::string* value : {&type, &subtype, &objectName, &version})
      if (!IsUtf8(*value)) throw std::runtime_error(leaf.relPath + ": the component description is no UTF-8 text");
    if (type.empty()) throw std::runtime_error(leaf.relPath + ": the component has no type");
    if (type == kSupportPackType)
      throw std::runtime_error(leaf.relPath + ": type " + type + " is the support pack's, not a leaf's");
    std::string compId = ComponentId(leaf, objectName);
    std::optional<std::string> installed;
    switch (state) {
      case State::kOlder:
        installed = OlderVersion(version);  // none: nothing is older, so the machine lacks it
        break;
      case State::kSame:
        installed = version;
        break;
      case State::kNewer:
        installed = NewerVersion(version);
        break;
      case State::kMissing:
        break;
      case State::kUnknownVersion:
        installed = "";
        break;
    }
    if (!installed || result.components >= maxComponents) continue;
    result.text += Section(type, subtype, objectName, *installed, compId, type + " " + subtype + " " + objectName);
    ++result.components;
  }
  return result;
}

}  // namespace inventory
