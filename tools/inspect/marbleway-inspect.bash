# Completion of marbleway-inspect's arguments for bash. The program itself lists options, tables and applications.
_marbleway_inspect() {
  local word=${COMP_WORDS[COMP_CWORD]} former=${COMP_WORDS[COMP_CWORD - 1]} given choices=
  COMPREPLY=()
  given=" ${COMP_WORDS[*]:1:COMP_CWORD-1} "
  case $former in
    --user | --limit) return ;;
    --format) choices='table ndjson csv' ;;
    --directory) ;;
    rows) choices=$("$1" --help | sed '1,/^Tables:/d') ;;
  esac
  if [[ -z $choices && $former != --directory ]]; then
    if [[ $word == -* || $given == *\ @(stats|rows|batch|privacy)\ * ]]; then
      choices=$("$1" --help | grep -o -e ' --[a-z-]*')
    elif [[ $given == *\ [!\ -]* && $given != *\ --format\ +([^ ])\  ]]; then
      choices='stats rows batch privacy'
    fi
  fi
  if [[ -z $choices ]]; then  # a directory, or a bundle identifier
    compopt -o filenames
    mapfile -t COMPREPLY < <(compgen -d -- "$word")
    choices=$("$1" --format csv 2>/dev/null | sed '1d; s/^"\([^"]*\)".*/\1/')
  fi
  mapfile -t -O ${#COMPREPLY[@]} COMPREPLY < <(compgen -W "$choices" -- "$word")
} && complete -F _marbleway_inspect marbleway-inspect
