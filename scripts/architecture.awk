# Compares the picture of the rooms with the includes: docs/architecture.md comes first, then the sources. Prints each
# arrow as a pair, so that tsort can find cycles.

# A folder is a room; of the folder of a program itself, each unit is.
function room(path) {
    sub(/^src\//, "", path); sub(/^common\//, "", path); sub(/\/src\//, "/", path)
    if (!sub(/^tvk(ctl|intif)\/[a-z_]+\.[a-z]+$/, "&", path)) sub(/\/[^\/]*$/, "", path)
    sub(/\.[a-z]+$/, "", path)
    return path
}
function complain(what) { print "check: docs/architecture.md " what >"/dev/stderr"; status = 1 }
FILENAME ~ /\.md$/ {
    if (/^```/) is_picture = /mermaid/
    for (i = 3; is_picture && $2 == "-->" && i <= NF; i += 2) { drawn[$1 " --> " $i]; rooms[$1]; rooms[$i] }
    next
}
FNR == 1 && !((here = room(FILENAME)) in rooms) { rooms[here]; complain("does not draw " here ", the room of " FILENAME) }
/^#include "/ && (there = room($2 = substr($2, 2, length($2) - 2))) != here {
    arrow = here " --> " there
    if (!(arrow in drawn) && !(arrow in needed)) complain("does not draw " arrow ", which " FILENAME " includes")
    needed[arrow]
}
END {
    for (arrow in drawn) if (!(arrow in needed)) complain("draws " arrow ", which nothing includes")
    for (arrow in needed) { sub(/ --> /, " ", arrow); print arrow }
    exit status
}
