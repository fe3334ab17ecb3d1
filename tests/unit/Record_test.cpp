#include "tool/Record.h"

#include <gtest/gtest.h>

#include <string>

using namespace tarnddp;

namespace {

std::string RecordText(const std::string& type, const std::string& name, const std::string& serial,
                       const std::string& firmware, const std::string& settings) {
  return "SID:0\tOAN:" + type + "\tOVN:V\tSAN:" + type + "\tSVN:V\tLOC:" + name + "\tMKC:XT175012#\tSNR:" + serial +
         settings + "\tEXTSID:0\tEXTAPPVER:" + firmware + "\r\n";
}

const std::string usual = "\tASK:true\tIPA:10.1.2.3\tSNM:255.255.0.0\tGWA:10.1.0.1\tMAA:00-1B-C4-0A-FF-05";

std::string Text(const std::optional<std::string>& text) { return text ? "'" + *text + "'" : "null"; }

std::string Told(const std::string& datagram) {
  const std::optional<Record> record = ReadRecord(datagram);
  if (!record) return "no record";
  const Facts f = FactsOf(*record);
  std::string told;
  for (const auto& text : {f.mac, f.serial, f.name, f.type, f.model, f.firmware, f.settings.address})
    told += Text(text) + " ";
  told += f.settings.prefix ? "/" + std::to_string(*f.settings.prefix) : "/null";
  return told + " " + Text(f.settings.gateway) + (f.settings.dhcp ? *f.settings.dhcp ? " dhcp" : " fixed" : " null") +
         (f.service ? " here" : " away");
}

}  // namespace

TEST(Record, TellsWhatIsKnown) {
  const std::string settings = "'XT175012#' '4' '10.1.2.3' /16 '10.1.0.1' dhcp here";
  const std::string here = "'00:1b:c4:0a:ff:05' '7' 'Bench' 'T' " + settings;
  const std::string odd("n\0\x80\x1b", 4);
  const struct {
    std::string datagram, told;
  } cases[] = {
      {RecordText("T", "Bench", "7", "4", usual), here},
      {RecordText("Tessel ??"
                  "?",
                  "APPTERM", "000000",
                  "??"
                  "?",
                  usual),
       "'00:1b:c4:0a:ff:05' null null null null null '10.1.2.3' /16 '10.1.0.1' null away"},
      // Without the other two, one of those texts is the device's own.
      {RecordText("T", "Bench", "000000", "4", usual), "'00:1b:c4:0a:ff:05' '000000' 'Bench' 'T' " + settings},
      {RecordText("T", "", "7", "4", "\tASK:false\tIPA:\tSNM:255.0.255.0\tGWA:0.0.0.0\tMAA:00:00:00:00:00:00"),
       "null '7' '' 'T' 'XT175012#' '4' null /null null fixed here"},
      {RecordText("T", "Bench", "7", "4", "\tASK:\tIPA:x\tSNM:\tGWA:\tMAA:00:1b:c4"),
       "null '7' 'Bench' 'T' 'XT175012#' '4' 'x' /null null fixed here"},
      // A TAB or a line end inside a value; a field that comes twice; one that nobody knows.
      {RecordText("T", "a\tb\r\nc:\tAB:C", "7", "4", usual),
       "'00:1b:c4:0a:ff:05' '7' 'a\tb\r\nc:\tAB:C' 'T' " + settings},
      {RecordText("T", "Bench", "7", "4", usual + "\tIPA:9.9.9.9\tNEW:1"), here},
      {RecordText("T", odd, "7", "4", usual), "'00:1b:c4:0a:ff:05' '7' '" + odd + "' 'T' " + settings},
      {"", "no record"},
      {"DEVICEIDENT?\r\n", "no record"},
      {"SID:0\tOAN:T", "no record"},
      {"x\tSID:0\tMAA:1", "no record"},
      {"SID:\tMAA:", "null '' '' '' '' '' null /null null fixed here"},
  };
  for (const auto& c : cases) EXPECT_EQ(c.told, Told(c.datagram)) << c.datagram;
}
