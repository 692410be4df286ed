#pragma once

// A source that elements hear: one subscription, whose samples go to the inboxes of them all. Lives on the main loop's
// thread (Capture.h) but for what arrives, on the source's capture queues.

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "Inbox.h"

namespace brvgst {

using Inboxes = PerMedium<std::shared_ptr<Inbox>>;

class Feed {
 public:
  explicit Feed(brv::Source source) : _source(std::move(source)) {}

  const brv::Source& source() const { return _source; }

  /// Starts the source, again if it was started for other media. Throws brv::Error.
  void add(const Inboxes& inboxes);
  void remove(const Inboxes& inboxes);
  bool isHeard() const;

  /// Devices came or went: another source may stand under this one's name by now.
  void expectChange() { _mayBeReplaced = true; }
  /// What there is to say about the source since the last call. Starts it again where another has taken its place.
  std::string check();

 private:
  using List = std::vector<std::shared_ptr<Inbox>>;

  void subscribe();
  std::shared_ptr<const List> hearing(Medium medium) const;
  void change(Medium medium, List inboxes);
  void pictureArrived(const brv::Frame& frame, const std::shared_ptr<Start>& start) noexcept;
  void soundArrived(const brv::Sound& sound, const std::shared_ptr<Start>& start) noexcept;
  void noteArrival(Medium medium, const std::shared_ptr<Start>& start, brv::Time time);

  const brv::Source _source;
  mutable std::mutex _lock;
  PerMedium<std::shared_ptr<const List>> _hearing{std::make_shared<List>(), std::make_shared<List>()};  // locked
  const std::shared_ptr<std::atomic<int>> _out = std::make_shared<std::atomic<int>>(0);
  PerMedium<std::atomic<brv::Time::rep>> _lastArrival{};  ///< 0 before the first
  std::atomic<bool> _isClip = false;
  PerMedium<bool> _saidSilent{};
  PerMedium<bool> _isSubscribed{};
  bool _mayBeReplaced = false;
  brv::Subscription _subscription;  // the last member: ends before what the handlers use goes
};

}  // namespace brvgst
