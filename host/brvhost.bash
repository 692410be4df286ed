# Completion for brvhost in bash: commands and options as its help has them, and the sources that are there.

_brvhost() {
  local word=${COMP_WORDS[COMP_CWORD]} before=${COMP_WORDS[COMP_CWORD - 1]}
  local program=${COMP_WORDS[0]} command='' operands=0 choices='' i
  local -a rig=()
  COMPREPLY=()
  for ((i = 1; i < COMP_CWORD; ++i)); do
    case ${COMP_WORDS[i]} in
      --rig) rig=(--rig "${COMP_WORDS[++i]}") ;;
      --module | --folder | --language | --set | --size | --rate | --seconds | --segment | --wait | --*-codec | --max-missing | --report | --listen | --port | --fps) ((++i)) ;;
      -*) ;;
      *) if [[ $command ]]; then ((++operands)); else command=${COMP_WORDS[i]}; fi ;;
    esac
  done

  case $before in
    --module | --rig | --folder | --report) compopt -o default; return ;;
    --language | --set | --size | --rate | --seconds | --segment | --wait | --*-codec | --max-missing | --listen | --port | --fps) return ;;
  esac
  if [[ $word == -* ]]; then
    choices=$({ "$program" --help; "$program" $command --help; } 2>/dev/null | grep -oE -- '--[a-z][a-z-]*' | sort -u)
  elif [[ ! $command ]]; then
    choices=$("$program" --help 2>/dev/null | sed -nE 's/^  ([a-z]+) .*/\1/p')
  elif ((operands == 0)) && "$program" "$command" --help 2>/dev/null | grep -q '^Usage:.* SOURCE'; then
    choices=$(timeout 3 "$program" --quiet ${rig[@]+"${rig[@]}"} list 2>/dev/null | sed -nE 's/^[0-9]+  (.*)  \(.*/\1/p')
  else
    compopt -o default
    return
  fi

  # A name with blanks is quoted, unless the quotation mark is there already.
  local quote='' choice
  [[ $word != [\"\']* ]] || quote=${word:0:1}
  word=${word#[\"\']} word=${word//\\/}
  while IFS= read -r choice; do
    [[ $choice && ${choice,,} == "${word,,}"* ]] || continue
    [[ $quote ]] || printf -v choice %q "$choice"
    COMPREPLY+=("$choice")
  done <<<"$choices"
}
complete -F _brvhost brvhost
