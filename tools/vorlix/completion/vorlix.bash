# SPDX-License-Identifier: Apache-2.0
# shellcheck shell=bash
# Completion of vorlix for bash. The program itself says what may stand at a place, so this file never goes out of date.

# Sets vorlix_text to what a word on the command line stands for, without its quotes. A quote may still be open.
_vorlix_unquote() {
  local word=$1 quote='' char
  vorlix_text=$word
  [[ $word == *[\\\"\']* ]] || return 0
  vorlix_text=''
  while [[ -n $word ]]; do
    char=${word:0:1} word=${word:1}
    case $quote$char in
      \" | \') quote=$char ;;
      \"\" | \'\') quote='' ;;
      \\) vorlix_text+=${word:0:1} word=${word:1} ;;
      \"\\)
        case $word in
          [\"\\\$\`]*) vorlix_text+=${word:0:1} word=${word:1} ;;
          *) vorlix_text+=$char ;;
        esac
        ;;
      *) vorlix_text+=$char ;;
    esac
  done
}

_vorlix() {
  local vorlix_text index piece blank typed word prefix path kind=''
  local -a words=()
  COMPREPLY=()

  # Bash cuts words at colons and equal signs; pieces without a blank between them are one word.
  local line=${COMP_LINE:-${COMP_WORDS[*]}}
  local rest=${line:0:${COMP_POINT:-${#line}}}
  for ((index = 0; index <= COMP_CWORD; ++index)); do
    piece=${COMP_WORDS[index]}
    blank=${rest%%[![:space:]]*}
    rest=${rest#"$blank"}
    if ((index == COMP_CWORD)); then piece=$rest; fi # up to the cursor
    rest=${rest#"$piece"}
    if ((index > 0)) && [[ -z $blank ]]; then
      words[${#words[@]} - 1]+=$piece
    else
      words+=("$piece")
    fi
  done
  for index in "${!words[@]}"; do
    _vorlix_unquote "${words[index]}"
    words[index]=$vorlix_text
  done
  word=${words[${#words[@]} - 1]}

  # Bash replaces only the last piece, so what comes before it must not be in the answers.
  _vorlix_unquote "${2-$piece}"
  typed=$vorlix_text
  if [[ $typed == [:=] ]]; then typed=''; fi
  prefix=${word%"$typed"}

  while IFS= read -r line; do
    if [[ -z $kind ]]; then
      kind=$line
      continue
    fi
    line=${line%%$'\t'*}
    if [[ $line == "$word"* ]]; then COMPREPLY+=("${line#"$prefix"}"); fi
  done < <("${words[0]/#\~\//$HOME/}" complete -- "${words[@]:1}" 2>/dev/null </dev/null)

  case $kind in
    command* | option* | choice*) return 0 ;;
  esac
  compopt -o filenames 2>/dev/null # quotes what is inserted
  path=$word
  if [[ $word == --*=* ]]; then path=${word#*=}; fi
  case $kind in
    *\ files) index=-f ;;
    *\ folders) index=-d ;;
    *) return 0 ;;
  esac
  while IFS= read -r line; do
    line=${word%"$path"}$line
    COMPREPLY+=("${line#"$prefix"}")
  done < <(compgen "$index" -- "$path")
  return 0
}

complete -F _vorlix vorlix
