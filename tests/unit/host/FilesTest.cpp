#include "record/OutputFile.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "common/Console.h"
#include "common/Failure.h"
#include "common/VideoDevices.h"
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

TEST(ConsoleTest, ProgressStaysUnderTheLinesOnATerminalAndIsLinesElsewhere) {
  const TemporaryFolder folder;
  const auto written = [&](bool isTerminal) {
    std::FILE* const file = std::fopen(folder.file("console").c_str(), "w");
    Console console(file, isTerminal);
    console.line("first\r\n");
    for (const char* progress : {"1 s", "2 s"}) console.progress(progress);
    console.line("dropped");
    console.endProgress();
    console.endProgress();
    console.line("last");
    std::fclose(file);
    return folder.contents("console");
  };
  const std::string clear = "\r\033[K";
  EXPECT_EQ(written(true), "first\n" + clear + "1 s" + clear + "2 s" + clear + "dropped\n" + clear + "2 s\nlast\n");
  EXPECT_EQ(written(false), "first\n1 s\n2 s\ndropped\nlast\n");
}

TEST(VideoDevicesTest, AreThoseWithANumberInItsOrderAndTellWhoMayUseThemAndWhoDoes) {
  const TemporaryFolder folder;
  for (const char* name : {"video10", "video2", "videos", "audio0"}) folder.write(name, "");
  ::chmod(folder.file("video2").c_str(), 0640);
  const std::ifstream holder(folder.file("video2"));
  const auto found = videoDevices(folder.file(""));
  ASSERT_EQ(found.size(), 2U);
  EXPECT_TRUE(found[0].path == folder.file("video2") && found[1].path == folder.file("video10"));
  EXPECT_TRUE(found[0].isPermitted && found[0].permissions.starts_with("-rw-r----- "));
  EXPECT_EQ(found[0].holders, std::vector{"unit_host (" + std::to_string(::getpid()) + ")"});
  EXPECT_TRUE(found[1].holders.empty());
}

}  // namespace
}  // namespace brvhost
