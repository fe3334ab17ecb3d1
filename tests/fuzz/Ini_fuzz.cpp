#include <SimpleIni.h>

#include <cstdint>
#include <cstdlib>
#include <string>

#include "xmlrpc/XmlRpcValue.h"

using TarnXmlRpc::XmlRpcValue;

/// Whatever SimpleIni loads becomes strings and structs of strings, and what these store is loaded again.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  XmlRpcValue::Ini ini;
  if (ini.LoadData(reinterpret_cast<const char*>(data), size) < 0) return 0;
  XmlRpcValue value(7);
  if (!value.fromINIFile(ini)) std::abort();
  if (!value.valid()) return 0;
  std::vector<std::string> names;
  if (!value.getMembers(names)) std::abort();
  for (const std::string& name : names) {
    const XmlRpcValue::Type type = value.getMemberType(name);
    if (type != XmlRpcValue::TypeString && type != XmlRpcValue::TypeStruct) std::abort();
  }
  XmlRpcValue::Ini stored;
  if (!value.toINIFile(stored, "", "")) std::abort();
  XmlRpcValue again;
  if (!again.fromINIFile(stored)) std::abort();
  if (again.valid() && again.size() > value.size()) std::abort();
  return 0;
}
