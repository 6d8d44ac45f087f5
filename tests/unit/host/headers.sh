#!/bin/sh
# headers.sh COMPILER FOLDER: every header of the host's interface in FOLDER compiles as the only
# include of a source, without warnings, and those that the plug-in includes do not bring what the
# host's do not bring.
compiler=$1
folder=$2
failed=0

compiles() { "$compiler" -std=c++11 -Wall -Wextra -Werror -I"$folder" -fsyntax-only -x c++ -; }
complain() { echo "$*"; failed=1; }

count=0
for header in $(cd "$folder" && find . -name '*.h'); do
  count=$((count + 1))
  echo "#include \"${header#./}\"" | compiles || complain "$header does not stand alone"
done
echo "$count headers"
[ "$count" -ge 30 ] || complain "these are too few"

# lacks HEADER OTHER USE: USE compiles with OTHER but not with HEADER alone.
lacks() {
  printf '#include "%s"\n#include "%s"\n%s\n' "$1" "$2" "$3" | compiles ||
    complain "$3 does not compile with $2"
  printf '#include "%s"\n%s\n' "$1" "$3" | compiles 2>/dev/null && complain "$1 brings $2"
}
lacks logging/WriterBackend.h Func.h "int x = sizeof(Func);"
lacks logging/WriterBackend.h UID.h "Bro::UID x;"
lacks logging/WriterBackend.h Conn.h "int x = sizeof(Connection);"
lacks logging/WriterBackend.h threading/formatters/Ascii.h \
  "extern threading::formatter::Ascii x;"
lacks logging/WriterBackend.h logging/WriterFrontend.h "int x = sizeof(logging::WriterFrontend);"
lacks plugin/Plugin.h logging/Component.h "int x = sizeof(logging::Component);"
lacks Reporter.h Val.h "int x = sizeof(Val);"
lacks Conn.h plugin/Plugin.h "plugin::VersionNumber x;"
exit $failed
