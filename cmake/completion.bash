# bash completion for talvik: commands, their options, and the values that --help lists.
_talvik() {
  local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]} help
  if ((COMP_CWORD == 1)); then
    help=$(talvik --help 2>/dev/null | sed -n '/^Subcommands:/,$ s/^  \([a-z]\+\) .*/\1/p')
    mapfile -t COMPREPLY < <(compgen -W "$help --help --version" -- "$current")
    return
  fi
  help=$(talvik "${COMP_WORDS[1]}" --help 2>/dev/null)
  if [[ $previous == --* ]]; then
    local values
    values=$(sed -n "s/^ *\(.*,\)\?$previous[ ,].*{\([^}]*\)}.*/\2/p" <<<"$help" | tr ',' ' ')
    if [[ -n $values ]]; then
      mapfile -t COMPREPLY < <(compgen -W "$values" -- "$current")
      return
    fi
  fi
  if [[ $current == -* ]]; then
    help=$(sed -n 's/^  \(-[^ ]*\).*/\1/p' <<<"$help" | tr ',' '\n' | grep -- '^--')
    mapfile -t COMPREPLY < <(compgen -W "$help" -- "$current")
  else
    compopt -o filenames 2>/dev/null
    mapfile -t COMPREPLY < <(compgen -f -- "$current")
  fi
}
complete -F _talvik talvik
