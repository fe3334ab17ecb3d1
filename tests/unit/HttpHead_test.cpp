#include "xmlrpc/HttpHead.h"

#include <gtest/gtest.h>

#include <tuple>

using TarnXmlRpc::HttpHead;
using State = HttpHead::State;

namespace {

using Outcome = std::tuple<State, int, std::size_t>;  // with the length and the body's start, once complete

Outcome Read(HttpHead& head, const std::string& text) {
  const State state = head.read(text);
  return state == State::Complete ? Outcome(state, head.contentLength(), head.bodyStart()) : Outcome(state, 0, 0);
}

TEST(HttpHead, ReadsTheLengthFieldHoweverItArrives) {
  const struct {
    const char* text;
    Outcome expected;
  } cases[] = {{"", {State::Incomplete, 0, 0}},
               {"Content-length: 12\r\n\r\n", {State::Incomplete, 0, 0}},  // nothing follows the blank line yet
               {"CONTENT-LENGTH: \t 7x\n\nb", {State::Complete, 7, 22}},
               {"Content-length: 5\r\nContent-length: 6\n\nb\n\n", {State::Complete, 6, 38}},
               {"Content-length:5\r\n\r\nb", {State::NoLength, 0, 0}},
               {"Content-length: \r\n\r\n8", {State::Complete, 8, 20}},  // blanks are skipped, line ends included
               {"Content-length: 0\r\n\r\nb", {State::NoLength, 0, 0}},
               {"Content-length: -4294967295\r\n\r\nb", {State::Complete, 1, 31}},
               {"Content-length: 4294967297\r\n\r\nb", {State::Complete, 1, 30}},
               {"Content-length: 4294967295\r\n\r\nb", {State::NoLength, 0, 0}},
               {"Content-length: 9223372036854775813\r\n\r\nb", {State::NoLength, 0, 0}}};  // saturates: all bits set
  for (const auto& c : cases) {
    HttpHead head;
    EXPECT_TRUE(Read(head, c.text) == c.expected) << '"' << c.text << '"';
    const std::string text = c.text;
    for (std::size_t step = 1; step < 20; ++step) {
      HttpHead growing;
      State state = State::Incomplete;
      for (std::size_t size = step; state == State::Incomplete && size < text.size() + step; size += step) {
        HttpHead anew;
        const Outcome inPieces = Read(growing, text.substr(0, size));
        EXPECT_TRUE(inPieces == Read(anew, text.substr(0, size))) << text.substr(0, size) << " in steps of " << step;
        state = std::get<State>(inPieces);
      }
    }
  }
}

TEST(HttpHead, TakesTimeLinearInTheHead) {  // else this one does not end
  HttpHead head;
  for (std::string text; text.size() < 4000000; text.append("X: y\r\n")) ASSERT_EQ(head.read(text), State::Incomplete);
}

}  // namespace
