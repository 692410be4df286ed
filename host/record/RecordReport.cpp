#include "record/RecordReport.h"

#include <charconv>
#include <cmath>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <regex>

#include "common/Failure.h"

namespace brvhost {

namespace {

std::string count(std::int64_t number) {
  return std::to_string(number);
}

std::string framesText(std::int64_t frames) {
  return count(frames) + (frames == 1 ? " frame" : " frames");
}

std::string secondsText(std::int64_t soundFrames) {
  return formatted("%.3f s", static_cast<double>(soundFrames) / SoundRate);
}

std::string bytesText(double bytes) {
  return bytes < 1e9 ? formatted("%.1f MB", bytes / 1e6) : formatted("%.2f GB", bytes / 1e9);
}

std::string spanText(double seconds) {
  const auto minutes = static_cast<long long>(seconds / 60);
  if (minutes >= 60) return formatted("%lld h %lld min", minutes / 60, minutes % 60);
  return minutes > 0 ? formatted("%lld min", minutes) : formatted("%.0f s", seconds);
}

/// The first gaps, each `describe`d by what is missing; nothing where there are none.
template <typename Describe>
std::string gapsText(const Gaps& gaps, Describe&& describe) {
  std::string text;
  for (const Gap& gap : gaps.first()) {
    text += (text.empty() ? "  gaps        " : ", ") + describe(gap.missing) + formatted(" at %.3f s", gap.position);
  }
  if (text.empty()) return text;
  const std::size_t others = gaps.count() - gaps.first().size();
  return text + (others > 0 ? formatted(", and %zu more\n", others) : "\n");
}

/// How the account of a medium closes.
std::string restText(const MediumAccount& medium) {
  std::string text = ", not written " + count(medium.notWritten);
  if (medium.waiting() > 0) text += ", waiting " + count(medium.waiting());
  return text + ", outside " + count(medium.outside) + "\n";
}

std::string dropsText(const char* medium, const Drops& drops) {
  const std::string reasons = reasonsText(drops);
  return reasons.empty() ? "" : medium + std::string(" dropped: ") + reasons + "\n";
}

/// What is wrong with one medium.
std::optional<std::string> shortfall(const MediumAccount& medium, const char* name, double frameSeconds,
                                     const TakeOptions& options, const MissingLimit& limit,
                                     const std::string& sourceError) {
  if (medium.delivered == 0) {
    return formatted("no %s came from the source", name) + (sourceError.empty() ? "" : ": " + sourceError);
  }
  if (options.seconds && medium.endSeconds + medium.sampleSeconds / 2 < *options.seconds) {
    return formatted("the %s ended at %.3f s, not at the %g s asked for", name, medium.endSeconds, *options.seconds);
  }
  if (medium.notWritten > 0) return "not everything was written: the disk or the encoder did not keep up";
  const double hole = static_cast<double>(medium.gaps.largest()) * frameSeconds;
  const double all = static_cast<double>(medium.gaps.missing() + medium.delivered);
  const double share = static_cast<double>(medium.gaps.missing()) / all;
  if (hole > limit.seconds) return formatted("%.3f s of the %s are missing in one place", hole, name);
  if (share > limit.share) return formatted("%.2f %% of the %s is missing", 100 * share, name);
  return std::nullopt;
}

nlohmann::ordered_json mediumJSON(const MediumAccount& medium, double frameSeconds, const Drops& drops) {
  nlohmann::ordered_json gaps = nlohmann::ordered_json::array();
  for (const Gap& gap : medium.gaps.first()) {
    gaps.push_back({{"at", gap.position}, {"seconds", static_cast<double>(gap.missing) * frameSeconds}});
  }
  return {{"delivered", medium.delivered},
          {"missing", medium.gaps.missing()},
          {"not_written", medium.notWritten},
          {"outside", medium.outside},
          {"seconds", medium.endSeconds},
          {"gaps", medium.gaps.count()},
          {"first_gaps", gaps},
          {"dropped", drops}};
}

}  // namespace

void MissingLimit::set(const std::string& text) {
  double value = 0;
  const char* const end = text.data() + text.size();
  const auto [unit, error] = std::from_chars(text.data(), end, value);
  const std::string_view rest(unit, static_cast<std::size_t>(end - unit));
  if (error != std::errc() || !(value >= 0) || (rest != "s" && rest != "%")) {
    throw UsageError("\"" + text + "\" is neither seconds, such as 2s, nor a share, such as 1%");
  }
  (rest == "s" ? seconds : share) = rest == "s" ? value : value / 100;
}

TakeDrops TakeDrops::since(const TakeDrops& earlier) const {
  TakeDrops between = *this;
  for (const auto& [reason, number] : earlier.pictures) between.pictures[reason] -= number;
  for (const auto& [reason, number] : earlier.sound) between.sound[reason] -= number;
  return between;
}

TakeDrops& TakeDrops::operator+=(const TakeDrops& more) {
  for (const auto& [reason, number] : more.pictures) pictures[reason] += number;
  for (const auto& [reason, number] : more.sound) sound[reason] += number;
  return *this;
}

std::string reasonsText(const Drops& drops) {
  static const std::pair<const char*, const char*> words[] = {
      {"late", "because the disk or the machine was behind"},
      {"no_buffer", "for want of buffers or memory"},
      {"lost_by_device", "lost by the device"},
      {"not_converted", "that could not be decoded or converted"},
      {"invalid_time", "without a valid time"},
      {"stopped", "that were waiting at a stop"}};
  std::string text;
  for (const auto& [reason, why] : words) {
    const auto found = drops.find(reason);
    if (found == drops.end() || found->second == 0) continue;
    text += (text.empty() ? "" : ", ") + count(found->second) + " " + why;
  }
  return text;
}

std::string outlookText(const brv::Source& source, const TakeOptions& options) {
  const auto selectedTitle = [&](const char* parameter) {
    const std::optional<int> selected = source.selected(parameter);
    for (const brv::Option& option : source.options(parameter)) {
      if (selected == option.index) return option.title;
    }
    return std::string();
  };
  double perSecond = options.records(Medium::audio) ? soundBytesPerSecond(*options.encoding.audio) : 0;
  if (options.records(Medium::video)) {
    std::smatch size;
    const std::string title = selectedTitle(brv::VideoSettings);
    const double rate = std::atof(selectedTitle(brv::VideoFPS).c_str());
    if (!std::regex_search(title, size, std::regex("(\\d+) x (\\d+)")) || !(rate > 0)) return {};
    perSecond += pictureBytesPerSecond(*options.encoding.video, std::stod(size[1]) * std::stod(size[2]), rate);
  }
  std::string text = "about " + bytesText(perSecond) + " a second";
  if (isURL(options.target) || options.target == "-") return text;
  std::error_code error;
  const std::filesystem::path folder = std::filesystem::absolute(options.target, error).parent_path();
  const double room = static_cast<double>(std::filesystem::space(folder, error).available) / perSecond;
  if (error) return text;
  text += ": there is room for " + spanText(room);
  if (options.seconds && room < *options.seconds)
    text += ", which is less than the " + spanText(*options.seconds) + " asked for";
  return text;
}

std::string progressText(double elapsedSeconds, const TakeAccount& account, const Level& level) {
  const auto seconds = static_cast<long long>(elapsedSeconds);
  std::string text = formatted("%02lld:%02lld:%02lld", seconds / 3600, seconds / 60 % 60, seconds % 60);
  const MediumAccount &pictures = account.pictures, &sound = account.sound;
  if (pictures.delivered > 0) {
    text += "  " + framesText(pictures.delivered) + ", " + count(pictures.gaps.missing()) + " missing, " +
            count(pictures.notWritten) + " not written";
  }
  if (sound.delivered > 0) text += formatted("  %.1f s of sound, ", sound.endSeconds) + levelText(level.peak);
  return text + "  " + bytesText(static_cast<double>(account.bytes));
}

std::string reportText(const TakeAccount& account, const TakeDrops& drops) {
  const MediumAccount &pictures = account.pictures, &sound = account.sound;
  std::string text;
  for (const std::string& file : account.files) text += file + "\n";
  if (!account.format.empty()) text += "  content     " + account.format + "\n";
  if (pictures.delivered + pictures.outside > 0) {
    text += "  pictures    " + formatted("%.3f s", pictures.endSeconds) + ", delivered " + count(pictures.delivered) +
            ", missing " + count(pictures.gaps.missing()) + restText(pictures) + gapsText(pictures.gaps, framesText);
  }
  if (sound.delivered + sound.outside > 0) {
    text += "  sound       " + formatted("%.3f s", sound.endSeconds) + ", delivered " + count(sound.delivered) +
            ", missing " + count(sound.gaps.missing()) + restText(sound) + gapsText(sound.gaps, secondsText);
  }
  if (sound.delivered > 0) text += "  loudest     " + levelText(account.peak) + "\n";
  if (account.drift != 0) text += formatted("  drift       the sound was stretched by %+.3f s\n", account.drift);
  text += "  size        " + bytesText(static_cast<double>(account.bytes)) + "\n";
  return text + dropsText("pictures", drops.pictures) + dropsText("runs of sound", drops.sound);
}

nlohmann::ordered_json reportJSON(const TakeAccount& account, const TakeDrops& drops,
                                  const std::optional<std::string>& shortfall) {
  const MediumAccount &pictures = account.pictures, &sound = account.sound;
  nlohmann::ordered_json report = {{"files", account.files}, {"bytes", account.bytes}, {"drift", account.drift}};
  if (pictures.delivered > 0) report["pictures"] = mediumJSON(pictures, pictures.sampleSeconds, drops.pictures);
  if (sound.delivered > 0) {
    report["sound"] = mediumJSON(sound, 1.0 / SoundRate, drops.sound);
    report["sound"]["peak"] =
        std::isfinite(account.peak) ? nlohmann::ordered_json(account.peak) : nlohmann::ordered_json();
  }
  report["shortfall"] = shortfall ? nlohmann::ordered_json(*shortfall) : nlohmann::ordered_json();
  return report;
}

std::optional<std::string> shortfallOf(const TakeAccount& account, const TakeOptions& options,
                                       const MissingLimit& limit, const std::string& sourceError) {
  if (account.failure) return account.failure;
  std::optional<std::string> found;
  if (options.records(Medium::video)) {
    found = shortfall(account.pictures, "picture", account.pictures.sampleSeconds, options, limit, sourceError);
  }
  if (!found && options.records(Medium::audio)) {
    found = shortfall(account.sound, "sound", 1.0 / SoundRate, options, limit, sourceError);
  }
  return found;
}

}  // namespace brvhost
