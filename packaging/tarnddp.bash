# Bash completion of tarnddp: commands, options, interfaces, files. Devices are not looked for: that would take seconds.
_tarnddp() {
  local word=${COMP_WORDS[COMP_CWORD]} before=${COMP_WORDS[COMP_CWORD-1]} command=scan at
  local common='--interface --time --help'
  COMPREPLY=()
  case $before in
    --interface)
      mapfile -t COMPREPLY < <(cd /sys/class/net 2>/dev/null && compgen -W "$(printf '%s ' *)" -- "$word")
      return ;;
    --time | --expect | --gateway | --dns) return ;;
  esac
  for ((at = 1; at < COMP_CWORD; at++)); do
    case ${COMP_WORDS[at]} in
      scan | set-ip | dhcp | apply | trace | halt | send) command=${COMP_WORDS[at]}; break ;;
    esac
  done
  local words
  case $command in
    scan) words="--expect --watch --json --csv $common" ;;
    set-ip) words="--gateway --dns --force --dry-run --json $common" ;;
    dhcp) words="--dry-run --json $common" ;;
    apply) words="--yes --dry-run --json $common" ;;
    halt) words="--yes $common" ;;
    *) words=$common ;;
  esac
  if ((at == COMP_CWORD)) && [[ $word != -* ]]; then
    mapfile -t COMPREPLY < <(compgen -W 'scan set-ip dhcp apply trace halt send' -- "$word")
    return
  fi
  ((at < COMP_CWORD)) || words+=' --version'
  if [[ $word != -* && $command = apply ]]; then
    compopt -o filenames 2>/dev/null
    mapfile -t COMPREPLY < <(compgen -f -- "$word")
  elif [[ $word != -* && $command = dhcp ]] && ((COMP_CWORD > at + 1)); then
    mapfile -t COMPREPLY < <(compgen -W 'on off' -- "$word")
  elif [[ $word = -* ]]; then
    mapfile -t COMPREPLY < <(compgen -W "$words" -- "$word")
  fi
}
complete -F _tarnddp tarnddp
