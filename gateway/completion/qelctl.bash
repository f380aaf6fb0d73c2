# SPDX-License-Identifier: Apache-2.0
#
# bash completion for qelctl; installed as share/bash-completion/completions/qelctl.

_qelctl_commands="discover show ports stats poe clients port backup restore firmware watch top ip time name active reboot reset query"
_qelctl_options="-h --help --version -i --interface --udp -s --switch -t --timeout --color --json -y --yes -n --dry-run"
_qelctl_speeds="AN 10M 10M-H 10M-F 100M 100M-H 100M-F 1G 1G-F 2.5G 5G 10G 25G 40G 100G"
_qelctl_settings="speed= enable= iso= eee= llpp= mstp= lldp= poe="

# Interfaces of this machine, without running anything.
_qelctl_interfaces() {
  local path
  for path in /sys/class/net/*; do
    printf '%s\n' "${path##*/}"
  done
}

# Fills COMPREPLY with those of the words in $1 that begin with $2.
_qelctl_offer() {
  local word
  COMPREPLY=()
  while IFS= read -r word; do
    COMPREPLY+=("$word")
  done < <(compgen -W "$1" -- "$2")
}

_qelctl_files() {
  local word
  compopt -o filenames 2>/dev/null
  COMPREPLY=()
  while IFS= read -r word; do
    COMPREPLY+=("$word")
  done < <(compgen -f -- "$1")
}

# The words that are no options and no values of options: command, subcommand, arguments.
_qelctl_plain_words() {
  local i
  plain=()
  for ((i = 1; i < COMP_CWORD; i++)); do
    case ${COMP_WORDS[i]} in
      -i | --interface | --udp | -s | --switch | -t | --timeout | --color | --wait | --seconds | --expect | --count | --for | --interval | --rounds)
        ((i++))
        ;;
      -*) ;;
      *) plain+=("${COMP_WORDS[i]}") ;;
    esac
  done
}

_qelctl_own_options() {
  case $1 in
    discover) echo --expect ;;
    ports) echo --panel ;;
    watch) echo "--count --for" ;;
    top) echo "--interval --rounds" ;;
    reboot | reset | restore) echo --wait ;;
    query) echo --config ;;
    "port restart") echo "--seconds --wait" ;;
  esac
}

_qelctl() {
  local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]}
  local -a plain
  _qelctl_plain_words
  case $previous in
    -i | --interface)
      _qelctl_offer "$(_qelctl_interfaces)" "$current"
      return
      ;;
    --color)
      _qelctl_offer "auto always never" "$current"
      return
      ;;
    -s | --switch)
      _qelctl_offer "all" "$current"
      return
      ;;
    --udp | -t | --timeout | --wait | --seconds | --expect | --count | --for | --interval | --rounds)
      COMPREPLY=()
      return
      ;;
  esac
  if [[ $current == -* ]]; then
    local family=${plain[0]-}
    [[ $family == port ]] && family="port ${plain[1]-}"
    _qelctl_offer "$_qelctl_options $(_qelctl_own_options "$family")" "$current"
    return
  fi
  case "${#plain[@]} ${plain[*]:0:2}" in
    "0 "*) _qelctl_offer "$_qelctl_commands" "$current" ;;
    "1 port") _qelctl_offer "enable disable speed restart config" "$current" ;;
    "1 firmware") _qelctl_offer "push pull" "$current" ;;
    "1 backup" | "1 restore" | "2 firmware push") _qelctl_files "$current" ;;
    "1 time") _qelctl_offer "now" "$current" ;;
    "1 query") _qelctl_offer "mono poe statistics mstp llpp stp lldp zebra" "$current" ;;
    "3 port speed") _qelctl_offer "$_qelctl_speeds" "$current" ;;
    *" port config")
      compopt -o nospace 2>/dev/null
      _qelctl_offer "$_qelctl_settings" "$current"
      ;;
    *) COMPREPLY=() ;;
  esac
}

complete -F _qelctl qelctl
