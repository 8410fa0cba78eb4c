#!/usr/bin/env zsh
# Completes command lines with the installed _ostrel in an interactive zsh on
# a pseudo-terminal, as a user's Tab would, and prints for each line
# "line: <line>", then the matches offered, one "match: <match>" line each.
#
# usage: zsh_completion.zsh <prefix> <directory> <line>...
# The shell's working directory is <directory>, its PATH begins with
# <prefix>/bin, and its completion functions are the installation's.
emulate -L zsh
zmodload zsh/zpty || exit 77

prefix=$1 directory=$2
shift 2

# Each line is completed in a fresh shell, so that no state of one
# completion reaches the next; the shells share one dump of the completion
# functions, which makes them quick to start.
dump=$directory/.zcompdump
for line in "$@"; do
  zpty shell zsh -f -i || exit 1
  zpty -w shell "PS1= PS2= RPS1=; cd ${(q)directory}; path=(${(q)prefix}/bin \$path)"
  zpty -w shell "fpath=(${(q)prefix}/share/zsh/site-functions \$fpath); autoload -Uz compinit; compinit -u -d ${(q)dump}"
  # Every match that a completion function adds is printed as well. Calls
  # that only ask for matches (-O, -A, -D) are helpers' and pass through.
  # A match offered with an empty suffix (no blank behind it) is marked
  # "+nospace". The marks are written in two pieces, so that the echo of
  # these lines has none.
  zpty -w shell 'compadd() {
    if [[ " $* " == *" -"[OAD]" "* ]]; then builtin compadd "$@"; return; fi
    local -a hits; builtin compadd -O hits "$@"
    local mark= i
    for (( i = 1; i < $#; i++ )); do [[ ${@[i]} == -S && -z ${@[i+1]} ]] && mark=+nospace; done
    (( $#hits )) && print -rl -- "<""match>"${^hits}$mark
    builtin compadd "$@"
  }'
  zpty -w shell 'finish-list() { print -r -- "<""end>"; }; comppostfuncs=(finish-list)'
  zpty -w shell "bindkey '^I' complete-word"
  # The line is typed once the shell has done all the above, so that the Tab
  # reaches its line editor and nothing else.
  zpty -w shell 'print -r -- "<""ready>"'
  zpty -r shell output '*<ready>*' || exit 1
  zpty -n -w shell "$line"$'\t'
  output=
  zpty -r shell output '*<end>*' || exit 1
  print -r -- "line: $line"
  # A match runs from its mark to the end of its line.
  for piece in ${${(s:<match>:)output}[2,-1]}; do
    print -r -- "match: ${piece%%[$'\r\n']*}"
  done
  zpty -d shell
done
