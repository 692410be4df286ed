// expat with a plain tree of one's own: what one would write in an afternoon.

#include <expat.h>

#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "Options.h"
#include "Work.h"

namespace {

struct Field {
  const char* type;
  std::string name;
  std::string value;
};

struct Record {
  std::string name;
  std::vector<Field> fields;
  std::vector<Record> children;
};

Record makeOptions() {
  Record root{
      "parameter", {{"text", "name", "Video Settings"}, {"text", "type", "int"}, {"text", "global", "false"}}, {}};
  for (int i = 0; i < bench::OptionCount; ++i) {
    Record& option = root.children.emplace_back(Record{"option", {{"uint16", "value", std::to_string(i)}}, {}});
    option.children.push_back(
        {"title", {{"text", "lang", "en"}, {"text", "value", bench::optionTitles()[static_cast<std::size_t>(i)]}}, {}});
  }
  return root;
}

void appendEscaped(std::string& text, std::string_view value) {
  for (const char character : value) {
    switch (character) {
      case '&':
        text += "&amp;";
        break;
      case '<':
        text += "&lt;";
        break;
      case '>':
        text += "&gt;";
        break;
      case '"':
        text += "&quot;";
        break;
      default:
        text += character;
    }
  }
}

void write(std::string& text, const Record& record) {
  text += "<record name=\"";
  appendEscaped(text, record.name);
  text += "\">";
  for (const Field& field : record.fields) {
    text += '<';
    text += field.type;
    text += " name=\"";
    appendEscaped(text, field.name);
    text += "\" value=\"";
    appendEscaped(text, field.value);
    text += "\"/>";
  }
  for (const Record& child : record.children) write(text, child);
  text += "</record>";
}

using Open = std::vector<Record*>;

void XMLCALL elementStarted(void* context, const XML_Char* element, const XML_Char** attributes) {
  Open& open = *static_cast<Open*>(context);
  std::string name;
  std::string value;
  for (; *attributes; attributes += 2) (std::string_view(attributes[0]) == "name" ? name : value) = attributes[1];
  const std::string_view type(element);
  if (type == "record") {
    open.push_back(&open.back()->children.emplace_back(Record{std::move(name), {}, {}}));
  } else {
    open.back()->fields.push_back({type == "text" ? "text" : "uint16", std::move(name), std::move(value)});
  }
}

void XMLCALL elementEnded(void* context, const XML_Char* element) {
  if (std::string_view(element) == "record") static_cast<Open*>(context)->pop_back();
}

void writeOptions() {
  std::string text;
  write(text, makeOptions());
}

void readOptions() {
  const std::string& text = bench::optionsDocument();
  Record document;
  Open open{&document};
  XML_Parser parser = XML_ParserCreate(nullptr);
  XML_SetUserData(parser, &open);
  XML_SetElementHandler(parser, elementStarted, elementEnded);
  XML_Parse(parser, text.data(), static_cast<int>(text.size()), XML_TRUE);
  XML_ParserFree(parser);
}

const bench::Definition writing{{"options written/own tree", 1, 1, [] { return bench::repeat(writeOptions); }}};
const bench::Definition reading{{"options read/expat", 1, 1, [] { return bench::repeat(readOptions); }}};

}  // namespace
