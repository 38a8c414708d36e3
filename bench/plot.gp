# Relaunch latency distributions of the benchmark: one box per supervisor (and
# per launcher for keldra) with every sample drawn on top, log scale.
#
#   gnuplot -e "datafile='relaunch-samples.dat'; outfile='relaunch-latency.png'" bench/plot.gp
#
# The data file has one line per kill: <box index> "<label>" <milliseconds>.
if (!exists("datafile")) datafile = 'relaunch-samples.dat'
if (!exists("outfile")) outfile = 'relaunch-latency.png'

set terminal pngcairo size 1200,650 font "DejaVu Sans,10"
set output outfile
set title "Relaunch latency: SIGKILL of a daemon to the first instruction of its successor"
set ylabel "milliseconds (log scale)"
set logscale y
set grid ytics mytics
set style boxplot nooutliers
set style fill solid 0.2 border -1
set boxwidth 0.6
set xtics nomirror scale 0
set key off
set jitter overlap 0.3 spread 0.6

stats datafile using 1 nooutput
boxes = int(STATS_max)
set xrange [0.3:boxes + 0.7]

plot for [i=1:boxes] datafile using (i):($1 == i ? $3 : 1/0):(0.6) with boxplot lc rgb "#4477aa", \
     datafile using 1:3:xtic(2) with points pt 7 ps 0.45 lc rgb "#cc3311"
