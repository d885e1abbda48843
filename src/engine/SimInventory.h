// The installed components of the simulated update engine: the file inventory.txt of its folder,
// read by the inventory side and written back whole by the job side after a flash.
//
//     [system]
//     os=linux
//     [component]
//     type=BIOS
//     subtype=SystemBoard
//     objectName=D3300
//     version=1.1.0
//     compId=D3300
//     description=BIOS of the system board D3300
//
// UTF-8 (a byte-order mark is skipped), LF or CR LF, blank lines and '#' or ';' lines ignored,
// blanks around keys and values dropped, section and key names without regard to ASCII case.
// Unknown keys are ignored; anything else that is not one of these lines refuses the whole file.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "base/WString.h"

namespace engine {

// The type of the support pack entry. Packages are never matched against it; its version is the
// support pack version of every update element.
inline constexpr const char16_t* kSupportPackType = u"KordSupportPack-Win";

struct SimComponent {
  WString type;  // never empty
  WString subtype;
  WString objectName;
  WString version;  // empty: the component is there, its version unknown
  WString compId;
  WString description;

  bool operator==(const SimComponent&) const = default;
};

class SimInventory {
 public:
  // The operating system of a file without [system]: the one the module runs on.
  static const WString& DefaultOs();

  SimInventory();

  // Reads a whole file's bytes. False when they are malformed: `error` then names the line and
  // the fault, and the object is left as it was (never half-loaded).
  bool Parse(const std::string& bytes, WString& error);
  // The file's bytes: a comment line, [system], then one [component] section per component.
  std::string Format() const;
  // Writes the file atomically: `<path>.new` first, then renamed over `path`, so that a reader
  // sees the old inventory or the new one, never a part. False (the old file untouched) when the
  // write or the rename fails, or when a text would not read back as it is (a line break in a
  // value, blanks around it, a component without type).
  bool Save(const WString& path) const;

  const WString& Os() const { return m_os; }
  void SetOs(WString os) { m_os = std::move(os); }
  const std::vector<SimComponent>& Components() const { return m_components; }
  std::vector<SimComponent>& Components() { return m_components; }
  // The first component of the support pack type, or null.
  const SimComponent* SupportPack() const;

  bool operator==(const SimInventory&) const = default;

 private:
  WString m_os;
  std::vector<SimComponent> m_components;
};

}  // namespace engine
