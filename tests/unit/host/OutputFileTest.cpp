#include "record/OutputFile.h"

#include <gtest/gtest.h>

#include "common/Failure.h"
#include "support/TemporaryFolder.h"

namespace brvhost {
namespace {

TEST(OutputFileTest, HarmsNoFileBeforeItWritesAndLeavesNoEmptyOneOfItsOwn) {
  const TemporaryFolder folder;
  const std::string path = folder.write("clip", "earlier");
  OutputFile(path).discard();
  {
    const std::ifstream player(path);
    OutputFile file(path);
    EXPECT_THROW(file.write("new", 3), Failure);
    EXPECT_THROW(OutputFile{path}, Failure);
  }
  EXPECT_EQ(folder.contents("clip"), "earlier");
  OutputFile(path).write("new", 3);
  EXPECT_EQ(folder.contents("clip"), "new");
  { const OutputFile empty(folder.file("empty")); }
  EXPECT_FALSE(folder.contains("empty"));
}

}  // namespace
}  // namespace brvhost
