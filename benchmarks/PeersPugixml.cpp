// pugixml, with its own tree, writer and reader.

#include <pugixml.hpp>

#include <cstddef>
#include <string>

#include "Options.h"
#include "Work.h"

namespace {

pugi::xml_node add(pugi::xml_node parent, const char* element, const char* name) {
  pugi::xml_node node = parent.append_child(element);
  node.append_attribute("name") = name;
  return node;
}

void addText(pugi::xml_node parent, const char* name, const char* value) {
  add(parent, "text", name).append_attribute("value") = value;
}

struct TextWriter final : pugi::xml_writer {
  std::string text;
  void write(const void* data, std::size_t size) override { text.append(static_cast<const char*>(data), size); }
};

void writeOptions() {
  pugi::xml_document document;
  pugi::xml_node root = add(document, "record", "parameter");
  addText(root, "name", "Video Settings");
  addText(root, "type", "int");
  addText(root, "global", "false");
  for (int i = 0; i < bench::OptionCount; ++i) {
    pugi::xml_node option = add(root, "record", "option");
    add(option, "uint16", "value").append_attribute("value") = i;
    pugi::xml_node title = add(option, "record", "title");
    addText(title, "lang", "en");
    addText(title, "value", bench::optionTitles()[static_cast<std::size_t>(i)].c_str());
  }
  TextWriter writer;
  document.save(writer, "", pugi::format_raw);
}

void readOptions() {
  const std::string& text = bench::optionsDocument();
  pugi::xml_document document;
  document.load_buffer(text.data(), text.size());
}

const bench::Definition writing{{"options written/pugixml", 1, 1, [] { return bench::repeat(writeOptions); }}};
const bench::Definition reading{{"options read/pugixml", 1, 1, [] { return bench::repeat(readOptions); }}};

}  // namespace
