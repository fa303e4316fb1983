# Completion of marbleway-collector's arguments for bash. The program's own help lists the options.
_marbleway_collector() {
  local word=${COMP_WORDS[COMP_CWORD]}
  case ${COMP_WORDS[COMP_CWORD - 1]} in
    --data | --config) mapfile -t COMPREPLY < <(compgen -f -- "$word") ;;
    --token | --port | --host | --page-token | --allow-host | --fail-batches) COMPREPLY=() ;;
    *) mapfile -t COMPREPLY < <(compgen -W "$("$1" --help | grep -o -e ' --[a-z-]*')" -- "$word") ;;
  esac
} && complete -o filenames -F _marbleway_collector marbleway-collector
