// The catalogue as the agent reads it, compared whole with a reviewed copy: a
// changed name, description, schema keyword or edit reference line shows here.
#include "catalogue.hpp"

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>

namespace tondrel {
namespace {

TEST(Catalogue, IsExactlyTheReviewedCopy) {
  std::ifstream golden(TONDREL_TESTS_DIR "/golden/tools_list.json");
  std::string reviewed((std::istreambuf_iterator<char>(golden)), {});
  EXPECT_EQ(toolsJSON() + "\n", reviewed);
  for (std::string_view name : {"", "tondrel_", "Tondrel_state", "tondrel_state "})
    EXPECT_EQ(findTool(name), nullptr);
}

}  // namespace
}  // namespace tondrel
