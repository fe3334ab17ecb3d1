#include <SimpleIni.h>
#include <fcntl.h>

#include <cstdio>
#include <memory>
#include <utility>

#include "base/Descriptor.h"
#include "xmlrpc/XmlNumbers.h"
#include "xmlrpc/XmlRpcValue.h"

namespace TarnXmlRpc {

namespace {

constexpr std::size_t NUMBER_SIZE = 32;  // "%g" and "%ld" take less

bool Store(XmlRpcValue::Ini& ini, const char* section, const char* key, const char* text) {
  return ini.SetValue(section, key, text, nullptr, true) >= 0;
}

struct Closer {
  void operator()(std::FILE* file) const { static_cast<void>(std::fclose(file)); }  // what was written: CloseWritten()
};
/// Closed also when memory runs out in SimpleIni.
using File = std::unique_ptr<std::FILE, Closer>;

/// What fopen(`name`, `mode`) does, with a descriptor that takes no standard stream's place and that no command
/// inherits.
File Open(const std::string& name, const char* mode) {
  const int how = *mode == 'w' ? O_WRONLY | O_CREAT | O_TRUNC : O_RDONLY;
  const int descriptor = GateCloexec(open(name.c_str(), how | O_CLOEXEC, 0666));
  File file(descriptor < 0 ? nullptr : fdopen(descriptor, mode));
  if (file == nullptr && descriptor >= 0) CloseKeepingErrno(descriptor);
  return file;
}

/// Closes a file that was written; false if not everything reached it.
bool CloseWritten(File file) {
  const bool written = std::ferror(file.get()) == 0;
  return std::fclose(file.release()) == 0 && written;
}

}  // namespace

bool XmlRpcValue::toINIFile(Ini& ini, const char* section, const char* key) const {
  if (section == nullptr || key == nullptr) return false;
  char number[NUMBER_SIZE];
  switch (_type) {
    case TypeBoolean:
      return Store(ini, section, key, _value.asBool ? "true" : "false");
    case TypeInt:
      std::snprintf(number, sizeof number, "%ld", static_cast<long>(_value.asInt));
      return Store(ini, section, key, number);
    case TypeDouble:
      FormatDouble(_value.asDouble, "%g", number, sizeof number);
      return Store(ini, section, key, number);
    case TypeString:
      return Store(ini, section, key, _value.asString->c_str());
    case TypeStruct: {
      // By the innermost name alone: a file has one level of sections.
      bool stored = true;
      for (const auto& member : *_value.asStruct) {
        stored = member.second.toINIFile(ini, key, member.first.c_str()) && stored;
      }
      return stored;
    }
    default:
      return false;
  }
}

bool XmlRpcValue::toINIFile(const std::string& fileName) const {
  Ini ini;
  if (!toINIFile(ini, "", "")) return false;
  File file = Open(fileName, "wb");
  if (file == nullptr) return false;
  Ini::FileWriter writer(file.get());
  const bool saved = ini.Save(writer) >= 0;
  return CloseWritten(std::move(file)) && saved;
}

bool XmlRpcValue::fromINIFile(Ini& ini) {
  invalidate();
  XmlRpcValue read;
  Ini::TNamesDepend sections;
  ini.GetAllSections(sections);
  for (const auto& section : sections) {
    XmlRpcValue members;
    Ini::TNamesDepend keys;
    ini.GetAllKeys(section.pItem, keys);
    for (const auto& key : keys) {
      Ini::TNamesDepend values;
      ini.GetAllValues(section.pItem, key.pItem, values);
      for (const auto& value : values) {
        XmlRpcValue& owner = *section.pItem == '\0' ? read : members;
        owner[key.pItem] = value.pItem;
      }
    }
    if (*section.pItem == '\0') continue;
    members.assertStruct();
    read[section.pItem] = std::move(members);
  }
  *this = std::move(read);
  return true;
}

bool XmlRpcValue::fromINIFile(const std::string& fileName) {
  Ini ini;
  {
    const File file = Open(fileName, "rb");
    if (file == nullptr || ini.LoadFile(file.get()) < 0) return false;
  }
  return fromINIFile(ini);
}

}  // namespace TarnXmlRpc
