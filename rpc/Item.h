#pragma once

// What the method bindings are made of, and what reads them.

#include <initializer_list>
#include <string>

#include "xmlrpc/XmlRpcValue.h"

/// Defines ItemName_<member>(), which returns the name of that member of the struct. Made on first use, so that it is
/// there for the constructors of global objects too.
#define RPC_ITEM_NAME(member)                       \
  static const std::string& ItemName_##member() {   \
    static const std::string str##member = #member; \
    return str##member;                             \
  }

namespace RPCItem {

/// The member of every struct that names the method.
inline constexpr char MethodID[] = "MethodID";

struct Item {
  const std::string& name;
  TarnXmlRpc::XmlRpcValue value;
};

/// Makes `record` a struct with the method's identifier and, where it has none yet, the default of each item.
void SetDefaults(TarnXmlRpc::XmlRpcValue& record, const char* identifier, std::initializer_list<Item> defaults);

/// The text of a string member. An absent one is added, empty, also to a record that a failed call left invalid. Empty
/// for a member of another type and on a record that is no struct; never throws XmlRpcException.
std::string GetText(const TarnXmlRpc::XmlRpcValue& record, const std::string& name);

}  // namespace RPCItem
