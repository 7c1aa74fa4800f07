#!/usr/bin/env bash
# bench/plot.sh TITLE UNIT AXIS PREFIX[=LABEL]... <rows >plot.svg: draws the figures PREFIX.N of rows that benchmarks print
# against N, both axes in powers of ten, as an SVG picture with one line for each prefix. AXIS names what N counts. After
# "bench/program-peers.sh plot":
#   cp build/bench/time-by-entries.tsv docs/figures/
#   bench/plot.sh "A first backup, by the number of entries" s entries program.entries.kbagent=kbagent \
#       program.entries.restic=restic "program.entries.tar=tar | zstd" program.entries.rsync=rsync \
#       <docs/figures/time-by-entries.tsv >docs/figures/time-by-entries.svg
set -euo pipefail
[ $# -ge 4 ] || { echo "Usage: bench/plot.sh TITLE UNIT AXIS PREFIX[=LABEL]... <rows >plot.svg" >&2; exit 2; }
export LC_ALL=C
title=$1 unit=$2 axis=$3
shift 3

awk -F '\t' -v title="$title" -v unit="$unit" -v axis="$axis" -v prefixes="$(printf '%s\n' "$@")" '
    function log10(x) { return log(x) / log(10) }
    function floor(x) { return x < int(x) ? int(x) - 1 : int(x) }
    function x_of(n) { return left + (log10(n) - x_least) / (x_most - x_least) * width }
    function y_of(v) { return top + height - (log10(v) - y_least) / (y_most - y_least) * height }
    function escaped(text) { gsub(/&/, "\\&amp;", text); gsub(/</, "\\&lt;", text); return text }
    BEGIN {
        series = split(prefixes, prefix, "\n")
        for (s = 1; s <= series; ++s)
            if (at = index(prefix[s], "=")) {
                label[s] = escaped(substr(prefix[s], at + 1))
                prefix[s] = substr(prefix[s], 1, at - 1)
            }
        split("#06c #d55e00 #009e73 #cc79a7 #555 #e69f00", colour, " ")
    }
    # The last of several rows of the same name counts.
    {
        for (s = 1; s <= series; ++s) {
            if (index($1, prefix[s] ".") != 1) continue
            size = substr($1, length(prefix[s]) + 2)
            if (size !~ /^[0-9]+$/) continue
            if ($2 <= 0) { print "plot.sh: " $1 " is not positive" > "/dev/stderr"; failed = 1; exit 1 }
            if (!((s, size) in value)) n[s, ++count[s]] = size
            value[s, size] = $2
            if (!any++) { x_low = x_high = size; y_low = y_high = $2 }
            if (size + 0 < x_low) x_low = size + 0
            if (size + 0 > x_high) x_high = size + 0
            if ($2 < y_low) y_low = $2
            if ($2 > y_high) y_high = $2
            sizes[size]
        }
    }
    END {
        if (failed) exit 1
        for (s = 1; s <= series; ++s)
            if (count[s] < 2) { print "plot.sh: fewer than two figures of " prefix[s] > "/dev/stderr"; exit 1 }
        left = 70; top = 40; width = 480; height = 240
        x_least = log10(x_low); x_most = log10(x_high)
        y_least = floor(log10(y_low)); y_most = -floor(-log10(y_high))
        if (y_most == y_least) ++y_most
        whole = series > 1 ? 690 : 600
        printf "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"%d\" height=\"340\" font-family=\"sans-serif\" font-size=\"12\">\n", whole
        printf "<rect width=\"%d\" height=\"340\" fill=\"white\"/>\n", whole
        printf "<text x=\"300\" y=\"22\" text-anchor=\"middle\" font-size=\"14\">%s</text>\n", escaped(title)
        for (p = y_least; p <= y_most; ++p) {
            y = top + height - (p - y_least) / (y_most - y_least) * height
            printf "<line x1=\"%d\" y1=\"%.1f\" x2=\"%d\" y2=\"%.1f\" stroke=\"#ccc\"/>\n", left, y, left + width, y
            printf "<text x=\"%d\" y=\"%.1f\" text-anchor=\"end\">%g %s</text>\n", left - 6, y + 4, 10 ^ p, unit
        }
        for (size in sizes)
            printf "<text x=\"%.1f\" y=\"%d\" text-anchor=\"middle\">%d</text>\n", x_of(size), top + height + 18, size
        for (s = 1; s <= series; ++s) {
            points = marks = ""
            for (i = 1; i <= count[s]; ++i) {
                size = n[s, i]; v = value[s, size]
                points = points sprintf("%.1f,%.1f ", x_of(size), y_of(v))
                marks = marks sprintf("<circle cx=\"%.1f\" cy=\"%.1f\" r=\"3\" fill=\"%s\"/>\n", x_of(size), y_of(v), colour[s])
                if (series == 1)
                    marks = marks sprintf("<text x=\"%.1f\" y=\"%.1f\" text-anchor=\"middle\">%.3g</text>\n", x_of(size), y_of(v) - 8, v)
            }
            printf "<polyline points=\"%s\" fill=\"none\" stroke=\"%s\" stroke-width=\"2\"/>\n%s", points, colour[s], marks
            # Insert the name by the height of the last point.
            for (at = s; at > 1 && y_of(value[s, n[s, count[s]]]) < height_of[order[at - 1]]; --at) order[at] = order[at - 1]
            order[at] = s
            height_of[s] = y_of(value[s, n[s, count[s]]])
        }
        # Names at the ends of their lines, at least a line apart, with the last figure.
        for (i = 1; series > 1 && i <= series; ++i) {
            s = order[i]
            y = height_of[s] + 4
            if (i > 1 && y < above + 15) y = above + 15
            above = y
            printf "<text x=\"%d\" y=\"%.1f\" fill=\"%s\">%s: %.3g %s</text>\n", left + width + 10, y, colour[s], label[s], value[s, n[s, count[s]]], unit
        }
        printf "<text x=\"%d\" y=\"%d\" text-anchor=\"middle\">%s</text>\n</svg>\n", left + width / 2, top + height + 38, escaped(axis)
    }'
