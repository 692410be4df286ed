#pragma once

// Simulated hardware of a test.

#include <gtest/gtest.h>
#include <simulated/RigParser.h>
#include <simulated/SimulatedProvider.h>

#include <memory>
#include <string>
#include <variant>

namespace rigs {

/// The rig of a text that is known to be right.
inline hardware::simulated::Rig parsed(const std::string& text) {
  auto result = hardware::simulated::parseRig(text, "test.rig");
  const auto* error = std::get_if<hardware::simulated::RigError>(&result);
  EXPECT_EQ(error, nullptr) << error->message();
  return error ? hardware::simulated::Rig{} : std::get<hardware::simulated::Rig>(std::move(result));
}

/// Its devices are the machine's until others are installed.
inline std::shared_ptr<hardware::simulated::Provider> install(const std::string& text) {
  auto provider = std::make_shared<hardware::simulated::Provider>(parsed(text));
  hardware::installSystemProvider(provider);
  return provider;
}

}  // namespace rigs
