#pragma once

// One source on the wall: its feed while it runs, and its recording. Main thread.

#include <brv.hpp>

#include <chrono>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>

#include "monitor/Feed.h"
#include "record/RecordReport.h"
#include "record/Recorder.h"

namespace brvhost {

class Station {
 public:
  explicit Station(const brv::Source& source);
  ~Station() { stop(); }
  Station(const Station&) = delete;
  Station& operator=(const Station&) = delete;

  const brv::Source& source() const { return _source; }
  const std::shared_ptr<Feed>& feed() const { return _feed; }
  /// Whether the source has gained or lost a medium since.
  bool isOutdated() const { return _hasVideo != _source.hasVideo() || _hasAudio != _source.hasAudio(); }

  /// Throw brv::Error when the source has gone.
  void start();
  void stop();
  bool isRunning() const { return bool(_running); }

  /// Starts a recording to a new file in `folder`, of which `ending` says the kind, and returns its name. Throws
  /// Failure.
  std::string record(const std::string& folder, const std::string& ending);
  bool isRecording() const { return _recorder != nullptr; }
  /// Whether the recording cannot go on.
  bool hasRecordingFailed() const { return _recorder && _recorder->isComplete(); }
  /// Completes the file, and returns the account of it.
  std::string endRecording();

  /// For the page.
  nlohmann::ordered_json state();

 private:
  /// What changes slowly, and takes longer to find out.
  void lookUp();

  const brv::Source _source;
  const bool _hasVideo, _hasAudio;
  const std::shared_ptr<Feed> _feed = std::make_shared<Feed>();
  brv::Subscription _running;

  TakeOptions _take;
  TakeDrops _dropsBefore;
  std::unique_ptr<Recorder> _recorder;

  nlohmann::ordered_json _facts;
  std::chrono::steady_clock::time_point _lookedUp{};
};

}  // namespace brvhost
