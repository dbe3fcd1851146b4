#!/bin/sh
# Turns the headers' plain comments into Doxygen's: "// " lines before a
# declaration document it, and a "// " after a member on its own line
# documents that member.
exec sed -E -e 's@^([[:space:]]*)//( |$)@\1///\2@' \
            -e 's@^([[:space:]]*[^/[:space:]].*[^[:space:]])[[:space:]]+// @\1 ///< @' "$1"
