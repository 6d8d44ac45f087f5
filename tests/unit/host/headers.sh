#!/bin/sh
# headers.sh COMPILER STANDARD FOLDER: every header of the host's interface in FOLDER compiles as
# the only include of a source, without warnings.
compiler=$1
standard=$2
folder=$3
failed=0
count=0
for header in $(cd "$folder" && find . -name '*.h'); do
  count=$((count + 1))
  printf '#include "%s"\n' "${header#./}" |
    "$compiler" -std=c++"$standard" -Wall -Wextra -Werror -I"$folder" -fsyntax-only -x c++ - || {
    echo "$header does not stand alone"
    failed=1
  }
done
echo "$count headers"
[ "$count" -ge 40 ] && [ "$failed" -eq 0 ]
