// A parameter's options as a record: the tree built and written as XML, and the document read back into a tree.

#include <lumora/zBuffer.h>
#include <lumora/zRecord.h>
#include <lumora/zXML.h>

#include <cstdio>
#include <cstdlib>

#include "Options.h"
#include "Work.h"

namespace {

/// As the module builds it, with titles that are at hand.
void buildOptions(zRecord& parameter) {
  parameter.SetCString("name", "Video Settings", 0);
  parameter.SetCString("type", "int", 0);
  parameter.SetCString("global", "false", 0);
  for (int i = 0; i < bench::OptionCount; ++i) {
    auto* const option = new zRecord("option");
    parameter.AddChild(option, zRecord::AtEnd);
    option->SetUInt16("value", static_cast<std::uint16_t>(i), 0);
    auto* const title = new zRecord("title");
    option->AddChild(title, zRecord::AtEnd);
    title->SetCString("lang", "en", 0);
    title->SetCString("value", bench::optionTitles()[static_cast<std::size_t>(i)].c_str(), 0);
  }
}

void require(int result) {
  if (result == zXML::Success) return;
  std::fprintf(stderr, "bench: the options record cannot be written or read: %d\n", result);
  std::exit(1);
}

void write(zBuffer& text) {
  zRecord parameter("parameter");
  buildOptions(parameter);
  require(zXML::RecordToBuffer(&text, parameter, zXML::Format, true, false));
}

bench::Run makeWriting() {
  bench::optionTitles();
  return bench::repeat([] {
    zBuffer text(0, 0);
    write(text);
  });
}

bench::Run makeReading() {
  bench::optionsDocument();
  return bench::repeat([] {
    const std::string& text = bench::optionsDocument();
    zRecord record;
    require(zXML::ParseBuffer(zXML::Mode, &record, text.data(), static_cast<int>(text.size())));
  });
}

const bench::Definition writing{{"options written/ours", 1, 1, makeWriting}};
const bench::Definition reading{{"options read/ours", 1, 1, makeReading}};

}  // namespace

const std::string& bench::optionsDocument() {
  static const std::string document = [] {
    zBuffer text(0, 0);
    write(text);
    return std::string(text.Data(), text.Length());
  }();
  return document;
}
