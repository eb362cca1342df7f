# Completion for bash: vexiladmin's options, files, and the command in the word after -command, abbreviated or not.

# What vexiladmin -command '?' lists.
_vexiladmin_patterns='set instance <instance>
login <user> [password]
instances list
trace get
trace set <level>
session refresh all_sessions <user-name> -realm <realm-name>
session refresh session <session-id> -realm <realm-name>
session terminate all_sessions <username> -realm <realm-name>
session terminate session <session-id> -realm <realm-name>
session list -realm <realm-name> <pattern> <max>
key change
key show
realm show <realm-name>
realm list
replica set show <replica-set-name>
replica set list [-realm <realm>]'

# Fills COMPREPLY with what a line of the command language may become, shown with the values that its user knows.
_vexiladmin_command() {
  local line=$1 quote=$2 pattern index head rest beginning
  local -a words parts
  read -ra words <<<"$line"
  [[ -n $line && $line != *' ' ]] || words+=('')
  local last=$((${#words[@]} - 1))
  local before=${line%"${words[last]}"}
  COMPREPLY=()
  while read -r pattern; do
    read -ra parts <<<"$pattern"
    ((last < ${#parts[@]})) || continue
    for index in "${!words[@]}"; do
      # A value may be anything; of a keyword there must be a beginning.
      [[ ${parts[index]} == *[\>\]]* || ${parts[index]#[} == "${words[index]}"* ]] || continue 2
    done
    head='' rest=${parts[*]:last}
    if [[ -n ${words[last]} && ${parts[last]} == *[\>\]]* ]]; then
      head=${words[last]} rest=${parts[*]:last+1}
      [[ -z $rest ]] || head+=' '
    elif [[ -n ${words[last]} && ${parts[last]} == \[* ]]; then
      rest=${rest//[][]/}
    fi
    COMPREPLY+=("$quote$before$head$rest")
    # What is typed may hold brackets of its own.
    beginning=$quote$before$head${rest%%[<[]*}
  done <<<"$_vexiladmin_patterns"
  # A value stays to be typed: the beginning beside the whole lets bash insert no more than that.
  if ((${#COMPREPLY[@]} == 1)); then
    if [[ ${COMPREPLY[0]} != "$beginning" ]]; then COMPREPLY+=("$beginning"); else COMPREPLY[0]+=$quote; fi
  fi
  compopt -o nospace
}

_vexiladmin() {
  local current=$2 word=${COMP_WORDS[COMP_CWORD]}
  case $3 in
    -command)
      # Without a quote before it, a command of several words gets one.
      if [[ $word == [\"\']* ]]; then _vexiladmin_command "$current" ''; else _vexiladmin_command "$current" '"'; fi
      ;;
    -file)
      mapfile -t COMPREPLY < <(compgen -f -- "$current")
      compopt -o filenames
      ;;
    -interactive) mapfile -t COMPREPLY < <(compgen -W 'Y N' -- "$current") ;;
    *) mapfile -t COMPREPLY < <(compgen -W '-command -file -interactive -help' -- "$current") ;;
  esac
}
complete -F _vexiladmin vexiladmin
