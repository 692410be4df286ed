#include "OutputFile.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>

#include "Failure.h"
#include "WAVWriter.h"
#include "support/MediaFiles.h"
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

TEST(WAVWriterTest, StatesNoSizesWhereItCannotGoBackAndFailsOnceNobodyReads) {
  std::signal(SIGPIPE, SIG_IGN);
  const TemporaryFolder folder;
  ASSERT_EQ(::mkfifo(folder.file("fifo").c_str(), 0600), 0);
  const int reader = ::open(folder.file("fifo").c_str(), O_RDONLY | O_NONBLOCK);
  WAVWriter writer(OutputFile(folder.file("fifo")), {8, 1, 16});
  const std::string twoSeconds(32, 'x');
  writer.write(twoSeconds.data(), twoSeconds.size());
  std::string bytes(1'000, '\0');
  bytes.resize(static_cast<std::size_t>(::read(reader, bytes.data(), bytes.size())));
  ::close(reader);

  const std::string unknown(4, '\xFF');
  EXPECT_EQ(bytes, "RIFF" + unknown + "WAVE" + chunk("JUNK", std::string(28, '\0')) +
                       chunk("fmt ", waveFormat(1, 1, 8, 16)) + "data" + unknown + twoSeconds);
  EXPECT_THROW(writer.write(twoSeconds.data(), twoSeconds.size()), Failure);
}

}  // namespace
}  // namespace brvhost
