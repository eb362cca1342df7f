# Completion of vexiladmin's options, and of the commands after -command, for bash.
_vexiladmin() {
  local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]}
  case $previous in
    -command)
      local IFS=$'\n' commands='instances list
key change
key show
login 
realm list
realm show 
replica set list
replica set show 
session list -realm 
session refresh all_sessions 
session refresh session 
session terminate all_sessions 
session terminate session 
set instance 
trace get
trace set '
      local word
      COMPREPLY=()
      for word in $(compgen -W "$commands" -- "${current#[\"\']}"); do
        COMPREPLY+=("\"$word")
      done
      compopt -o nospace
      ;;
    -file) COMPREPLY=($(compgen -f -- "$current")) ;;
    -interactive) COMPREPLY=($(compgen -W 'Y N' -- "$current")) ;;
    *) COMPREPLY=($(compgen -W '-command -file -interactive -help' -- "$current")) ;;
  esac
}
complete -F _vexiladmin vexiladmin
