#include <sys/resource.h>
#include <xmlrpc-c/base.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>

#include "xmlrpc/XmlRpcValue.h"

namespace {

long PeakBytes() {
  rusage usage = {};
  getrusage(RUSAGE_SELF, &usage);
  return usage.ru_maxrss * 1024;
}

bool Decode(const std::string& peer, const std::string& xml) {
  if (peer == "tarn") {
    static TarnXmlRpc::XmlRpcValue value;
    int offset = 0;
    return value.fromXml(xml, &offset);
  }
  xmlrpc_limit_set(XMLRPC_XML_SIZE_LIMIT_ID, 100000000);
  xmlrpc_env env;
  xmlrpc_env_init(&env);
  xmlrpc_value* value = nullptr;
  xmlrpc_parse_value_xml(&env, xml.data(), xml.size(), &value);
  return env.fault_occurred == 0;
}

}  // namespace

/// XmlRpcValue_peak tarn|xmlrpc-c FILE: prints by how many bytes decoding FILE, once, raised the process's peak.
int main(int argc, char** argv) {
  if (argc != 3) return 2;
  std::ifstream file(argv[2], std::ios::binary);
  std::string xml;
  file.seekg(0, std::ios::end);
  xml.resize(static_cast<std::size_t>(file.tellg()));
  file.seekg(0);
  file.read(xml.data(), static_cast<std::streamsize>(xml.size()));
  const long before = PeakBytes();
  if (!Decode(argv[1], xml)) return 1;
  std::printf("%ld\n", PeakBytes() - before);
  return 0;
}
