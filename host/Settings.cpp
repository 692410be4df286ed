#include "Settings.h"

#include <lumora/zBuffer.h>
#include <lumora/zRecord.h>
#include <lumora/zXML.h>

#include <algorithm>
#include <charconv>
#include <memory>
#include <string_view>
#include <system_error>

#include "ASCIICase.h"
#include "Failure.h"

namespace brvhost {

namespace {

struct Alias {
  std::string_view name;
  const char* parameter;
};

constexpr Alias Aliases[] = {{"video", VideoSettings}, {"fps", VideoFPS}, {"audio", AudioSettings}};

const char* parameterNamed(std::string_view name) {
  for (const char* parameter : ParameterNames) {
    if (equalsAnyCase(name, parameter)) return parameter;
  }
  for (const Alias& alias : Aliases) {
    if (equalsAnyCase(name, alias.name)) return alias.parameter;
  }
  throw UsageError("there is no setting \"" + std::string(name) + "\"; there are video, fps and audio");
}

void parseRecord(zRecord& record, const std::string& text, const char* name) {
  const int result = zXML::ParseBuffer(zXML::Mode, &record, text.data(), static_cast<int>(text.size()));
  if (result != zXML::Success || std::string_view(record.Name()) != name) {
    throw Failure(std::string("the module's \"") + name + "\" record cannot be read");
  }
}

/// The children of one name, in their order.
std::vector<const zRecord*> childrenOf(const zRecord& record, std::string_view name) {
  std::vector<const zRecord*> found;
  for (unsigned int i = 0; i < record.ChildCount(); ++i) {
    if (record.Child(i)->Name() == name) found.push_back(record.Child(i));
  }
  return found;
}

/// An index that a record tells; a record without one is none that the host understands.
std::int32_t indexIn(const zRecord& record) {
  const std::int32_t index = record.AsInt32("value", -1);
  if (index < 0) throw Failure(std::string("the module's \"") + record.Name() + "\" record names no choice");
  return index;
}

bool isOverridden(const Setting& earlier, const Setting& later) {
  return later.parameter == earlier.parameter || (earlier.parameter == VideoFPS && later.parameter == VideoSettings);
}

bool isSelected(const Parameter& parameter, std::int32_t index) {
  if (index == *parameter.selected) return true;
  const std::string title = parameter.titleOf(index);
  return !title.empty() && title == parameter.titleOf(*parameter.selected);
}

std::string shownTitle(const std::string& title) {
  return title.empty() ? "(no title)" : title;
}

}  // namespace

std::string Parameter::titleOf(std::int32_t index) const {
  const auto option = std::find_if(options.begin(), options.end(), [=](auto& each) { return each.index == index; });
  return option == options.end() ? std::string() : option->title;
}

Setting parseSetting(const std::string& text) {
  const std::size_t equals = text.find('=');
  if (equals == std::string::npos) throw UsageError("a setting is NAME=INDEX, not \"" + text + "\"");

  const char* const parameter = parameterNamed(std::string_view(text).substr(0, equals));
  std::int32_t index = -1;
  const char* const end = text.data() + text.size();
  const auto [parsedEnd, error] = std::from_chars(text.data() + equals + 1, end, index);
  if (error != std::errc() || parsedEnd != end || index < 0) {
    throw UsageError("\"" + text + "\" wants an index behind the \"=\", 0 or above");
  }
  return {parameter, index};
}

std::string settingsText(const std::vector<Setting>& settings) {
  std::string text;
  for (const Setting& setting : settings) {
    text += (text.empty() ? "" : ", ") + setting.parameter + "=" + std::to_string(setting.index);
  }
  return text;
}

std::string settingsRecord(const std::vector<Setting>& settings) {
  zRecord root("settings");
  for (const Setting& setting : settings) {
    auto parameter = std::make_unique<zRecord>("parameter");
    parameter->SetCString("name", setting.parameter.c_str(), 0);
    parameter->SetInt32("value", setting.index, 0);
    root.AddChild(parameter.get(), zRecord::AtEnd);
    parameter.release();  // the root's from here on
  }
  zBuffer buffer(0, 0);
  if (zXML::RecordToBuffer(&buffer, root, zXML::Format, true, false) != zXML::Success) {
    throw Failure("the settings cannot be written as a record");
  }
  return {buffer.Data(), buffer.Length()};
}

std::vector<ParameterOption> optionsInRecord(const std::string& record) {
  zRecord root;
  parseRecord(root, record, "parameter");
  std::vector<ParameterOption> options;
  for (const zRecord* option : childrenOf(root, "option")) {
    const auto titles = childrenOf(*option, "title");
    options.push_back({indexIn(*option), titles.empty() ? "" : titles.front()->AsCString("value", "", nullptr)});
  }
  return options;
}

std::vector<Setting> settingsInRecord(const std::string& record) {
  zRecord root;
  parseRecord(root, record, "settings");
  std::vector<Setting> settings;
  for (const zRecord* parameter : childrenOf(root, "parameter")) {
    settings.push_back({parameter->AsCString("name", "", nullptr), indexIn(*parameter)});
  }
  return settings;
}

std::optional<std::string> unmetSetting(const std::vector<Setting>& settings, const std::vector<Parameter>& now) {
  for (auto setting = settings.begin(); setting != settings.end(); ++setting) {
    if (std::any_of(setting + 1, settings.end(), [&](auto& later) { return isOverridden(*setting, later); })) continue;
    const auto parameter =
        std::find_if(now.begin(), now.end(), [&](auto& each) { return each.name == setting->parameter; });
    if (parameter == now.end() || !parameter->selected || isSelected(*parameter, setting->index)) continue;
    return formatted("%s is %d (%s), not %d", setting->parameter.c_str(), *parameter->selected,
                     shownTitle(parameter->titleOf(*parameter->selected)).c_str(), setting->index);
  }
  return std::nullopt;
}

std::string optionsTable(const Parameter& parameter) {
  std::string text;
  for (const ParameterOption& option : parameter.options) {
    const bool isMarked = parameter.selected == option.index;
    text += formatted("    %c %d  ", isMarked ? '*' : ' ', option.index) + shownTitle(option.title) + "\n";
  }
  return text;
}

std::string selectionTable(const std::vector<Parameter>& parameters) {
  std::string text;
  for (const Parameter& parameter : parameters) {
    text += formatted("  %-14s  ", parameter.name.c_str());
    text += parameter.selected
                ? formatted("%d  ", *parameter.selected) + shownTitle(parameter.titleOf(*parameter.selected))
                : "not known";
    text += "\n";
  }
  return text;
}

}  // namespace brvhost
