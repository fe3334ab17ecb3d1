#include <gtest/gtest.h>

#include <cstdlib>
#include <functional>
#include <new>

#include "xmlrpc/XmlRpcClient.h"
#include "xmlrpc/XmlRpcUtil.h"

using namespace TarnXmlRpc;

namespace {

long blocks = 0;            // allocated and not freed
long allocationsLeft = -1;  // before one fails; negative for never

void* Allocate(std::size_t size) {
  if (allocationsLeft == 0) throw std::bad_alloc();
  if (allocationsLeft > 0) --allocationsLeft;
  void* block = std::malloc(size == 0 ? 1 : size);
  if (block == nullptr) throw std::bad_alloc();
  ++blocks;
  return block;
}

void Free(void* block) {
  blocks -= block == nullptr ? 0 : 1;
  std::free(block);
}

}  // namespace

void* operator new(std::size_t size) { return Allocate(size); }
void* operator new[](std::size_t size) { return Allocate(size); }
void operator delete(void* block) noexcept { Free(block); }
void operator delete[](void* block) noexcept { Free(block); }
void operator delete(void* block, std::size_t) noexcept { Free(block); }
void operator delete[](void* block, std::size_t) noexcept { Free(block); }

namespace {

const char document[] =
    "<value><struct><member><name>a member name of some length</name><value>a text that is long enough for the heap"
    "</value></member><member><name>b</name><value><array><data><value><i4>1</i4></value><value>&lt;a text with an "
    "entity, "
    "long enough for the heap&gt;</value><value><base64>Zm9vYmFyZm9vYmFyZm9vYmFy</base64></value><value>"
    "<dateTime.iso8601>20240105T07:08:09</dateTime.iso8601></value></data></array></value></member></struct></value>";

/// In its array a malformed struct, which takes the reader through its survey.
const std::string hostile = std::string("<value><array><data><value><array><data>") + document +
                            "<value><struct><member><name>n</name><value>1</value></member><member>bad";

struct Echo : XmlRpcClientTransport {
  int SetCfg(XmlRpcValue&) override { return 0; }
  int Connect() override { return 0; }
  int Disconnect() override { return 0; }
  int execute(const std::string&, std::string& response) override {
    XmlRpcUtil::generateResponse(response, document);
    return 0;
  }
};

/// Runs `action` again and again, each time with a later allocation failing, until none does; `check` looks at what the
/// failure left. Nothing may be lost on the way.
void FailEach(const std::function<void()>& action, const std::function<void()>& check) {
  bool failed = true;
  for (long n = 0; failed; ++n) {
    ASSERT_LT(n, 10000);
    failed = false;
    const long before = blocks;
    allocationsLeft = n;
    try {
      action();
    } catch (const std::bad_alloc&) {
      failed = true;
    }
    allocationsLeft = -1;
    if (!failed) return;
    check();
    EXPECT_EQ(before, blocks) << "after failure " << n;
  }
}

}  // namespace

TEST(FailingAllocations, LeaveNoHalfDecodedValueAndNoLeak) {
  for (const std::string& xml : {std::string(document), hostile}) {
    XmlRpcValue value;
    int offset = 0;
    FailEach([&] { ASSERT_TRUE(value.fromXml(xml, &offset)); },
             [&] {
               EXPECT_FALSE(value.valid());
               EXPECT_EQ(0, offset);
             });
    EXPECT_TRUE(value.valid());
  }
}

TEST(FailingAllocations, LeaveTheOldValueOfAnAssignmentAndTheValueThatIsWritten) {
  XmlRpcValue value, copy("the value that stood here before, on the heap");
  int offset = 0;
  ASSERT_TRUE(value.fromXml(document, &offset));
  const XmlRpcValue same = value;
  FailEach([&] { copy = value; },
           [&] { EXPECT_EQ("the value that stood here before, on the heap", copy.getString()); });
  EXPECT_EQ(same, copy);
  FailEach([&] { value.toXml(1); }, [&] { EXPECT_EQ(same, value); });
}

TEST(FailingAllocations, EndACallWithAnInvalidResult) {
  Echo transport;
  XmlRpcValue params, result;
  params["a"] = 1;
  FailEach(
      [&] {
        XmlRpcClient client(&transport);
        ASSERT_EQ(0, client.execute("method", params, result));
      },
      [&] { EXPECT_FALSE(result.valid()); });
  EXPECT_EQ(2, result.size());
}
