#pragma once

// Transcripts: files that hold what is done, and what came of it. A head, which the test understands; below it steps,
// "> " in front, each with what came of it, indented by two. A transcript holds when the same steps bring the same text
// again. TRANSCRIPTS_WRITE in the environment writes what came into the files, to be read before it is kept.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

namespace transcripts {

/// The names of the transcripts of a folder, without their extension.
inline std::vector<std::string> in(const std::filesystem::path& folder) {
  std::vector<std::string> names;
  for (const auto& each : std::filesystem::directory_iterator(folder)) names.push_back(each.path().stem());
  std::ranges::sort(names);
  return names;
}

/// `make` is given a step, and the head, and returns what came of it.
inline void replay(const std::filesystem::path& folder, const std::string& name,
                   const std::function<std::string(const std::string& step, const std::string& head)>& make) {
  const auto path = folder / (name + ".txt");
  std::stringstream former;
  former << std::ifstream(path).rdbuf();
  std::string text, head, line;
  for (bool hasBegun = false; std::getline(former, line);) {
    if (hasBegun && line.starts_with("  ")) continue;
    text += line + "\n";
    if (hasBegun |= line.starts_with("> "); !hasBegun) head += line + "\n";
    if (!line.starts_with("> ")) continue;
    std::istringstream lines(make(line.substr(2), head));
    while (std::getline(lines, line)) text += "  " + line + "\n";
  }
  EXPECT_EQ(text, former.str());
  if (std::getenv("TRANSCRIPTS_WRITE")) std::ofstream(path) << text;
}

}  // namespace transcripts
