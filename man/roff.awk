# Turns help texts and the tree's Markdown into a manual page: headings, paragraphs, code, tables of two columns, and
# lines that explain a term ("  --option  what it does").

function roff(text) {
  gsub(/\\/, "\\e", text)
  gsub(/-/, "\\-", text)
  while (match(text, /`[^`]*`|\*\*[^*]*\*\*/)) {
    marks = substr(text, RSTART, 1) == "`" ? 1 : 2
    text = substr(text, 1, RSTART - 1) "\\fB" substr(text, RSTART + marks, RLENGTH - 2 * marks) "\\fR" \
           substr(text, RSTART + RLENGTH)
  }
  sub(/^['.]/, "\\\\\\&&", text)
  return text
}

function term(name, meaning) {
  print ".TP\n\\fB" roff(name) "\\fR\n" roff(meaning)
}

/^```/ { print inCode ? ".fi\n.RE" : ".PP\n.RS 4\n.nf"; inCode = !inCode; next }
inCode { print roff($0); next }
/^### / { print ".SS " roff(substr($0, 5)); next }
/^## / { print ".SH " toupper(roff(substr($0, 4))); next }
/^Usage: / { print ".PP\n\\fB" roff(substr($0, 8)) "\\fR"; next }
/^\|[- |]*$/ || /^\| Key / { next }
/^\|/ {
  split(substr($0, 3, length($0) - 4), cells, / \| /)
  gsub(/`/, "", cells[1])
  term(cells[1], cells[2])
  next
}
/^$/ { print ".PP"; next }
/^  [^ ]/ && match($0, /[^ ]   *[^ ]/) { term(substr($0, 3, RSTART - 2), substr($0, RSTART + RLENGTH - 1)); next }
{ sub(/^ */, ""); print roff($0) }
