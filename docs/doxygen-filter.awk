# Turns the comments of a public header into those of Doxygen, so that the headers themselves stay plain text.
#
#   /* Text. */ above declarations     documents all of them, up to the next empty line
#   /* The same functions ... */       gives each the text of its other name, by the export list
#    * name  text                      a parameter, or Returns, Threads, Memory and other headings
#    *   text                          shown as it stands
#   declaration; /* text */            documents what stands in front of it
#
# In a C++ header a "// " comment documents what follows it, or what stands in front of it on its line.
#
# Variable: exports, the export list.

BEGIN {
  while ((getline line < exports) > 0) {
    if (line !~ /^    [A-Z][A-Za-z0-9_]*/) continue
    split(line, part, /[ ;:#,]+/)  # "", name, family, target
    if (part[4] != "" && part[4] != "itself") {
      if (!(part[4] in otherName) || part[2] ~ part[4] "$") otherName[part[4]] = part[2]
      otherName[part[2]] = part[4]
    }
  }
}

# The text with everything that means something to Doxygen made harmless.
function escaped(text) {
  gsub(/[\\@<>&#%]/, "\\\\&", text)
  gsub(/`/, "", text)
  return text
}

# Prints a line of a comment: text is what stands behind its " * ".
function printText(text,    label, first) {
  if (text ~ /^  / && !inLabel) {
    if (!inVerbatim) print "@verbatim"
    inVerbatim = 1
    print text
    return
  }
  if (inVerbatim) print "@endverbatim"
  inVerbatim = 0
  if (text ~ /^  /) {
    sub(/^ +/, "", text)
    print escaped(text)
    return
  }
  if (match(text, /^[A-Za-z][A-Za-z0-9_]*(, [A-Za-z][A-Za-z0-9_]*)*  +/)) {
    label = substr(text, 1, RLENGTH)
    sub(/ +$/, "", label)
    text = escaped(substr(text, RLENGTH + 1))
    inLabel = 1
    first = substr(label, 1, 1)
    if (label == "Returns") print "@return " text
    else if (first ~ /[A-Z]/) print "\n@par " label "\n" text
    else {
      gsub(/, /, ",", label)
      print "@param " label " " text
    }
    return
  }
  if (inLabel && text != "") print ""
  inLabel = 0
  print escaped(text)
}

function printComment(    i) {
  inLabel = inVerbatim = 0
  print "/**" (isFileComment ? " @file" : "")
  for (i = 1; i <= commentLines; ++i) printText(comment[i])
  if (inVerbatim) print "@endverbatim"
  print "*/"
}

# The name that a line declares as a function; empty for another line.
function functionName(line) {
  if (line !~ /^ZEBCS_API /) return ""
  sub(/\(.*/, "", line)
  sub(/.*[ *]/, "", line)
  return line
}

# Prints the comment in hand with the declarations that follow it.
function printBlock(    i, name, count) {
  count = 0
  for (i = 1; i <= blockLines; ++i) count += block[i] ~ /^(ZEBCS_API|#define|typedef .*;)/
  if (comment[1] ~ /^The same functions?/) {
    for (i = 1; i <= blockLines; ++i) {
      name = functionName(block[i])
      if (name != "") print "/** The same as " otherName[name] ".\n@copydetails " otherName[name] " */"
      print block[i]
    }
  } else {
    if (count > 1) print "///@{"
    printComment()
    for (i = 1; i <= blockLines; ++i) print block[i]
    if (count > 1) print "///@}"
  }
  commentLines = blockLines = 0
}

FILENAME ~ /\.hpp$/ {
  if (/^ *\/\//) sub(/\/\//, "///")
  else if (match($0, /[;,] *\/\/ /)) $0 = substr($0, 1, RSTART) " ///< " substr($0, RSTART + RLENGTH)
  print
  next
}

# A comment behind a declaration.
/^[^ ].*[^ ] +\/\* .*\*\/$|^ .*; +\/\* .*\*\/$/ && !inComment {
  match($0, /\/\* /)
  text = substr($0, RSTART + 3, length($0) - RSTART - 5)
  $0 = substr($0, 1, RSTART - 1) "/**< " escaped(text) "*/"
}

/^\/\* / && !inComment {
  if (commentLines) printBlock()
  inComment = 1
  isFileComment = !seenComment++
  $0 = " * " substr($0, 4)
}

inComment {
  ended = sub(/ *\*\/$/, "")
  sub(/^ \* ?/, "")
  comment[++commentLines] = $0
  if (ended) {
    inComment = 0
    if (isFileComment) {
      printComment()
      commentLines = 0
    }
  }
  next
}

commentLines && /^$/ { printBlock() }

commentLines {
  block[++blockLines] = $0
  next
}

{ print }

END { if (commentLines) printBlock() }
