# Draws docs/performance.svg: nanoseconds per operation by the number of flows.
# `figures` is what ostra-bench writes with --benchmark_out_format=json.

set terminal svg size 1000,380 font "sans,11" background "white"
set output "docs/performance.svg"
set logscale xy
set format x "10^{%L}"
set xlabel "flows"
set xrange [700:1500000]
set yrange [50:50000]
set grid ytics mytics lc rgb "#cccccc", lc rgb "#eeeeee"
set key top left Left reverse samplen 1
set datafile separator " "

# "flows ns" of each benchmark that is run for several numbers of flows.
points(name) = sprintf("< awk -F'[\":/, ]+' '$2 == \"name\" { flows = $3 == \"%s\" ? $4 : 0 } \
  $2 == \"real_time\" && flows > 0 { print flows, $3 }' '%s'", name, figures)

set multiplot layout 1,3
do for [operation in "Insert Modify Delete"] {
  set title operation.", ns"
  base = operation eq "Modify" ? "Overwrite" : operation
  plot points("BM_Floor".base) with linespoints lw 2 pt 7 lc rgb "#888888" \
         title "two standard maps", \
       points("BM_Flow".operation) with linespoints lw 2 pt 7 lc rgb "#1f77b4" \
         title "the library", \
       points("BM_Write".operation) with linespoints lw 2 pt 7 lc rgb "#d62728" \
         title "a whole write"
}
unset multiplot
