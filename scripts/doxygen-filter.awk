# Doxygen's input filter for the public headers (see docs/Doxyfile): it reads the headers'
# plain comments as documentation, so that the headers stay written as they are.
#
# The comment block above "#pragma once" describes the file. A "//" line documents the
# declaration below it; a comment after code on the same line documents that code. In
# comment text outside double quotes, the characters Doxygen would read as commands or HTML
# (\ @ < > & % #) are escaped, so a comment renders as written; `code` spans and Markdown
# lists still work.

function escapeUnquoted(text) {
  gsub(/\\/, "\\\\\\\\", text)
  gsub(/[@<>&%#]/, "\\\\&", text)
  return text
}

# Doxygen takes text in double quotes literally, so only what lies outside is escaped.
function escape(text,    out, piece, quote, inQuotes) {
  out = ""
  inQuotes = 0
  while ((quote = index(text, "\"")) > 0) {
    piece = substr(text, 1, quote - 1)
    out = out (inQuotes ? piece : escapeUnquoted(piece)) "\""
    text = substr(text, quote + 1)
    # \" inside quotes is a quote character of the quoted text, as in C.
    if (!(inQuotes && piece ~ /\\$/)) inQuotes = !inQuotes
  }
  return out (inQuotes ? text : escapeUnquoted(text))
}

BEGIN { inFileComment = 1 }

/^#pragma once/ { inFileComment = 0; print; next }

inFileComment && /^\/\// {
  text = $0
  sub(/^\/\/ ?/, "", text)
  if (!fileStarted) { print "/// @file"; fileStarted = 1 }
  print "/// " escape(text)
  next
}

/^[ \t]*\/\// {
  match($0, /^[ \t]*/)
  indent = substr($0, 1, RLENGTH)
  text = substr($0, RLENGTH + 3)
  sub(/^ /, "", text)
  print indent "/// " escape(text)
  next
}

# A comment after code: two spaces and "// ", as clang-format writes it; not the name
# after a closing brace.
/[^ \t].*  \/\/ / && !/^[ \t]*}/ {
  at = index($0, "  // ")
  print substr($0, 1, at + 1) "///< " escape(substr($0, at + 5))
  next
}

{ print }
