#!/usr/bin/env bash
# bench/plot.sh PREFIX TITLE UNIT <rows >plot.svg: draws the figures PREFIX.N of bench/run.sh's rows against N, both
# axes in powers of ten, as an SVG picture.
set -euo pipefail

awk -F '\t' -v prefix="$1" -v title="$2" -v unit="$3" '
    function log10(x) { return log(x) / log(10) }
    function x_of(n) { return left + (log10(n) - x_least) / (x_most - x_least) * width }
    function y_of(v) { return top + height - (log10(v) - y_least) / (y_most - y_least) * height }
    function floor(x) { return x < int(x) ? int(x) - 1 : int(x) }
    index($1, prefix ".") == 1 { n[++count] = substr($1, length(prefix) + 2); value[count] = $2 }
    END {
        if (count < 2) { print "no figures of " prefix > "/dev/stderr"; exit 1 }
        left = 70; top = 40; width = 480; height = 240
        x_least = log10(n[1]); x_most = log10(n[count])
        least = most = value[1]
        for (i = 2; i <= count; ++i) {
            if (value[i] < least) least = value[i]
            if (value[i] > most) most = value[i]
        }
        y_least = floor(log10(least)); y_most = -floor(-log10(most))
        if (y_most == y_least) ++y_most
        print "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"600\" height=\"340\" font-family=\"sans-serif\" font-size=\"12\">"
        print "<rect width=\"600\" height=\"340\" fill=\"white\"/>"
        printf "<text x=\"300\" y=\"22\" text-anchor=\"middle\" font-size=\"14\">%s</text>\n", title
        for (p = y_least; p <= y_most; ++p) {
            y = top + height - (p - y_least) / (y_most - y_least) * height
            printf "<line x1=\"%d\" y1=\"%.1f\" x2=\"%d\" y2=\"%.1f\" stroke=\"#ccc\"/>\n", left, y, left + width, y
            printf "<text x=\"%d\" y=\"%.1f\" text-anchor=\"end\">%g %s</text>\n", left - 6, y + 4, 10 ^ p, unit
        }
        for (i = 1; i <= count; ++i) {
            printf "<text x=\"%.1f\" y=\"%d\" text-anchor=\"middle\">%d</text>\n", x_of(n[i]), top + height + 18, n[i]
            points = points sprintf("%.1f,%.1f ", x_of(n[i]), y_of(value[i]))
            marks = marks sprintf("<circle cx=\"%.1f\" cy=\"%.1f\" r=\"3\" fill=\"#06c\"/>\n", x_of(n[i]), y_of(value[i]))
            marks = marks sprintf("<text x=\"%.1f\" y=\"%.1f\" text-anchor=\"middle\">%.3g</text>\n", x_of(n[i]), y_of(value[i]) - 8, value[i])
        }
        printf "<polyline points=\"%s\" fill=\"none\" stroke=\"#06c\" stroke-width=\"2\"/>\n%s", points, marks
        printf "<text x=\"%d\" y=\"%d\" text-anchor=\"middle\">rules</text>\n</svg>\n", left + width / 2, top + height + 38
    }'
