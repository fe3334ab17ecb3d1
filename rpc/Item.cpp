#include "rpc/Item.h"

namespace RPCItem {

using TarnXmlRpc::XmlRpcException;
using TarnXmlRpc::XmlRpcValue;

void SetDefaults(XmlRpcValue& record, const char* identifier, std::initializer_list<Item> defaults) {
  record[MethodID] = identifier;
  for (const Item& item : defaults) {
    if (!record.hasMember(item.name)) record[item.name] = item.value;
  }
}

std::string GetText(const XmlRpcValue& record, const std::string& name) {
  try {
    // The accessors are const although they may add a member: callers hold results that a call emptied by reference to
    // const, and read the same member again later.
    return const_cast<XmlRpcValue&>(record)[name].getString();
  } catch (const XmlRpcException&) {
    return std::string();
  }
}

}  // namespace RPCItem
