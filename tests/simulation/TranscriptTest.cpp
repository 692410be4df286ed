#include <gtest/gtest.h>

#include <optional>

#include "ScriptedHost.h"
#include "support/FrameworkTest.h"
#include "support/Rigs.h"
#include "support/Transcript.h"

// What a host and its machine do, in virtual time, and what the host is told. The head of a transcript is a rig.

namespace test {
namespace {

class TranscriptTest : public FrameworkTest, public testing::WithParamInterface<std::string> {
 protected:
  SimulationScheduler scheduler;
  std::optional<ScriptedHost> host;
};

TEST_P(TranscriptTest, IsWhatItWas) {
  transcripts::replay(TRANSCRIPTS, GetParam(), [this](const auto& step, const auto& rig) {
    if (!host) host.emplace(rigs::parsed(rig));
    return host->make(step);
  });
}

INSTANTIATE_TEST_SUITE_P(Of, TranscriptTest, testing::ValuesIn(transcripts::in(TRANSCRIPTS)),
                         [](const auto& each) { return each.param; });

}  // namespace
}  // namespace test
