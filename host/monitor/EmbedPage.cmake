# Writes OUTPUT, a source file with the files in FOLDER as Page.h declares them.
set(entries "")
foreach(entry "/|text/html|monitor.html" "/monitor.css|text/css|monitor.css" "/monitor.js|text/javascript|monitor.js")
  string(REPLACE "|" ";" parts "${entry}")
  list(GET parts 0 path)
  list(GET parts 1 type)
  list(GET parts 2 file)
  file(READ "${FOLDER}/${file}" content)
  string(APPEND entries "    {\"${path}\", \"${type}; charset=utf-8\", R\"page(${content})page\"},\n")
endforeach()
file(WRITE "${OUTPUT}"
  "#include \"monitor/Page.h\"\n\nnamespace brvhost {\n\n"
  "std::span<const PageFile> pageFiles() {\n  static constexpr PageFile Files[] = {\n${entries}  };\n"
  "  return Files;\n}\n\n}  // namespace brvhost\n")
