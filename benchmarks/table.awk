# SPDX-License-Identifier: MIT
# table.awk: the table of one subject, from SUBJECT.goals and the results of its programs.
#
#   awk -v subject=NAME -f table.awk NAME.goals RESULTS
#
# RESULTS has lines LINE <tab> WHO <tab> VALUE, one for each round in which it was measured; the
# median over the rounds counts, and less is better. NAME.goals has lines, units and goals (its
# format is described in memory.goals). Exits with 1 if a value that a goal needs is missing.

BEGIN {
  FS = "\t"
  OURS = "yutils"
}

FILENAME == ARGV[1] && (/^#/ || /^$/) { next }
FILENAME == ARGV[1] && $1 == "@reference" {
  reference = $2
  next
}
FILENAME == ARGV[1] {
  lines[++lineCount] = $1
  unit[$1] = $2
  for (i = 3; i <= NF; i++) goal[$1, ++goalCount[$1]] = $i
  next
}

{
  if (!($1 in unit)) complain($1 ": measured, but not in the list of goals")
  if (!(($1, $2) in rounds)) who[$1, ++whoCount[$1]] = $2
  value[$1, $2, ++rounds[$1, $2]] = $3
}

END {
  printHeader()
  for (i = 1; i <= lineCount; i++) printLine(lines[i])
  print met " of " judged " lines meet their goals"
  exit failed
}

function complain(text) {
  print "table: " text > "/dev/stderr"
  failed = 1
}

# The values of the rounds are sorted in place.
function medianOf(line, name,    n, i, j, v) {
  n = rounds[line, name]
  for (i = 2; i <= n; i++) {
    v = value[line, name, i]
    for (j = i; j > 1 && value[line, name, j - 1] + 0 > v + 0; j--)
      value[line, name, j] = value[line, name, j - 1]
    value[line, name, j] = v
  }
  if (n % 2 == 1) return value[line, name, (n + 1) / 2]
  return (value[line, name, n / 2] + value[line, name, n / 2 + 1]) / 2
}

function findBest(line,    i, name, median) {
  best = ""
  for (i = 1; i <= whoCount[line]; i++) {
    name = who[line, i]
    if (name == OURS) continue
    median = medianOf(line, name)
    if (best == "" || median < bestMedian) {
      best = name
      bestMedian = median
    }
  }
}

# Returns our median divided by that of a peer, or "" if the peer was not measured.
function ratioTo(line, name) {
  if (name == "best") name = best
  if (!((line, name) in rounds)) return ""
  return ours / medianOf(line, name)
}

function judge(line,    i, ratio, parts) {
  goalText = ""
  verdict = goalCount[line] ? "met" : ""
  for (i = 1; i <= goalCount[line]; i++) {
    split(goal[line, i], parts, / *<= */)
    ratio = parts[1] == unit[line] ? ours : ratioTo(line, parts[1])
    if (ratio == "") complain(line ": " parts[1] " was not measured")
    if (ratio == "" || ratio > parts[2] + 0) verdict = "not met"
    goalText = goalText (i > 1 ? ", " : "") goal[line, i]
  }
}

function printLine(line) {
  if (!((line, OURS) in rounds)) {
    complain(line ": not measured")
    return
  }
  ours = medianOf(line, OURS)
  findBest(line)
  judge(line)
  if (verdict != "") judged++
  if (verdict == "met") met++
  printRow(line, amount(ours, unit[line]), best == "" ? "-" : amount(bestMedian, unit[line]), best,
           ratioText(line, "best"), ratioText(line, reference), goalText, verdict)
}

function printHeader() {
  met = judged = 0
  printRow(subject, OURS, "best peer", "", "to best", "to " reference, "goal", "result")
}

function printRow(line, mine, peer, name, toBest, toReference, goals, result,    row) {
  row = sprintf("%-36s %12s %12s  %-16s %8s ", line, mine, peer, name, toBest)
  if (reference != "") row = row sprintf("%9s ", toReference)
  row = row sprintf(" %-30s %s", goals, result)
  sub(/ +$/, "", row)
  print row
}

function ratioText(line, name,    ratio) {
  ratio = ratioTo(line, name)
  return ratio == "" ? "-" : sprintf("%.2f", ratio)
}

function amount(number, itsUnit) {
  return sprintf(number < 10 ? "%.2f %s" : number < 100 ? "%.1f %s" : "%.0f %s", number, itsUnit)
}
