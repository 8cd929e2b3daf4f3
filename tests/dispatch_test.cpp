#include "dispatch.hpp"

#include <gtest/gtest.h>

namespace tondrel {
namespace {

TEST(EscapeQueryValue, KeepsWhatAQueryMayCarryAndEncodesTheRest) {
  const std::pair<const char*, const char*> cases[] = {
      {"/x.wav", "/x.wav"},
      {"/Users/me/My Song & Co+1.wav", "/Users/me/My%20Song%20%26%20Co%2B1.wav"},
      {"a#b%c", "a%23b%25c"},
      {"caf\xC3\xA9 \xF0\x9F\x8E\xB5", "caf%C3%A9%20%F0%9F%8E%B5"},
      {"?=:@/-._~!$'()*,;", "?=:@/-._~!$'()*,;"},
      {"\"<>[]\\^`{|}\t\n", "%22%3C%3E%5B%5D%5C%5E%60%7B%7C%7D%09%0A"},
      {"", ""},
  };
  for (auto [value, escaped] : cases) EXPECT_EQ(escapeQueryValue(value), escaped) << value;
}

}  // namespace
}  // namespace tondrel
