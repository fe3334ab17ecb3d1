#include "tool/Record.h"

#include <gtest/gtest.h>

#include <regex>
#include <string>

#include "tool/Render.h"

using namespace tarnddp;

namespace {

std::string RecordText(const std::string& type, const std::string& name, const std::string& serial,
                       const std::string& firmware, const std::string& settings) {
  return "SID:0\tOAN:" + type + "\tOVN:V\tSAN:" + type + "\tSVN:V\tLOC:" + name + "\tMKC:XT175012#\tSNR:" + serial +
         settings + "\tEXTSID:0\tEXTAPPVER:" + firmware + "\r\n";
}

const std::string usual = "\tASK:true\tIPA:10.1.2.3\tSNM:255.255.0.0\tGWA:10.1.0.1\tMAA:00-1B-C4-0A-FF-05";

/// What JSON tells of it, without the keys: from the MAC address to whether the service is there.
std::string Told(const std::string& datagram) {
  const std::optional<Record> record = ReadRecord(datagram);
  if (!record) return "no record";
  return std::regex_replace(Json({{1, *record, {}}, {}}), std::regex(R"("[a-z]+":|,"answers.*)"), "");
}

}  // namespace

TEST(Record, TellsWhatIsKnown) {
  const std::string mac = R"({"00:1b:c4:0a:ff:05",)", settings = R"("10.1.2.3",16,"10.1.0.1",)",
                    rest = R"(,"T","XT175012#","4",)" + settings + "true,true", unknown = "null,null,null,null,null,";
  const struct {
    std::string datagram, told;
  } cases[] = {
      {RecordText("Tessel \?\?\?", "APPTERM", "000000", "\?\?\?", usual), mac + unknown + settings + "null,false"},
      // Two of those texts are no sign of it.
      {RecordText("T", "Bench", "000000", "\?\?\?", usual),
       mac + R"("000000","Bench","T","XT175012#","???",)" + settings + "true,true"},
      {RecordText("T", "", "7", "4", "\tASK:false\tIPA:\tSNM:255.0.255.0\tGWA:0.0.0.0\tMAA:00:00:00:00:00:00"),
       R"({null,"7","","T","XT175012#","4",null,null,null,false,true)"},
      {"SID:0\tASK:\tASK:true\tIPA:x\tSNM:\tGWA:\tMAA:00:1b:c4", R"({null,"","","","","","x",null,null,false,true)"},
      // A TAB or a line end inside a value; a field that comes twice; one that nobody knows.
      {RecordText("T", "a\tb\r\nc:\tAB:C", "7", "4", usual), mac + R"("7","a\tb\r\nc:\tAB:C")" + rest},
      {RecordText("T", "Bench", "7", "4", usual + "\tIPA:9.9.9.9\tNEW:1"), mac + R"("7","Bench")" + rest},
      {RecordText("T", std::string("n\0\x80", 3), "7", "4", usual), mac + R"("7","n\u0000\u0080")" + rest},
      {"", "no record"},
      {"SID:0\tOAN:T", "no record"},
      {"x\tSID:0\tMAA:1", "no record"}};
  for (const auto& c : cases) EXPECT_EQ(c.told, Told(c.datagram)) << c.datagram;
}
