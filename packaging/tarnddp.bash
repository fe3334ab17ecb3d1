# Bash completion of tarnddp: commands, options, interfaces, files. Devices are not looked for: that would take seconds.
_tarnddp() {
  local word=${COMP_WORDS[COMP_CWORD]} before=${COMP_WORDS[COMP_CWORD-1]} command=scan
  local common='--interface --time --help'
  COMPREPLY=()
  case $before in
    --interface)
      mapfile -t COMPREPLY < <(cd /sys/class/net 2>/dev/null && compgen -d -- "$word")
      return ;;
    --time | --expect | --gateway | --dns) return ;;
  esac
  if ((COMP_CWORD > 1)); then   # the first word alone can be a command
    case ${COMP_WORDS[1]} in set-ip | dhcp | apply | trace | halt | send) command=${COMP_WORDS[1]} ;; esac
  fi
  local words
  case $command in
    scan) words="--expect --watch --json --csv $common" ;;
    set-ip) words="--gateway --dns --force --dry-run --json $common" ;;
    dhcp) words="--dry-run --json $common" ;;
    apply) words="--yes --dry-run --json $common" ;;
    halt) words="--yes $common" ;;
    *) words=$common ;;
  esac
  if ((COMP_CWORD == 1)) && [[ $word != -* ]]; then
    mapfile -t COMPREPLY < <(compgen -W 'scan set-ip dhcp apply trace halt send' -- "$word")
    return
  fi
  ((COMP_CWORD > 1)) || words+=' --version'
  if [[ $word != -* && $command = apply ]]; then
    compopt -o filenames 2>/dev/null
    mapfile -t COMPREPLY < <(compgen -f -- "$word")
  elif [[ $word != -* && $command = dhcp ]] && ((COMP_CWORD > 2)); then
    mapfile -t COMPREPLY < <(compgen -W 'on off' -- "$word")
  elif [[ $word = -* ]]; then
    mapfile -t COMPREPLY < <(compgen -W "$words" -- "$word")
  fi
}
complete -F _tarnddp tarnddp
