# bash completion for x509-auth: commands, options (global and the
# command's, read from the tool's own --help) and thumbprint prefixes (read
# from `x509-auth list --json` with the directories and module already on
# the command line).

_x509_auth_options() {
  # The option names of a help text: "  --name ARG   text" and "-v,--verbose".
  "$@" --help 2>/dev/null | sed -n 's/^  \(-[^ ]*\).*/\1/p' | tr ',' '\n' | sort -u
}

_x509_auth() {
  local cur prev words cword
  _init_completion || return

  local commands="list chain sign decrypt show doctor tls help"
  local command="" i
  local -a global=()
  for ((i = 1; i < cword; i++)); do
    case ${words[i]} in
      --dir | --home-dir | --add-ca | --module)
        global+=("${words[i]}" "${words[i + 1]}")
        ((i++))
        ;;
      --pin-env | --pin-fd | --password-env | --password-fd) ((i++)) ;;
      -*) ;;
      *)
        if [[ -z $command ]]; then command=${words[i]}; fi
        ;;
    esac
  done

  case $prev in
    --dir | --home-dir)
      _filedir -d
      return
      ;;
    --module)
      # An absolute path or none: the tool refuses a relative one.
      if [[ $cur == /* ]]; then
        _filedir
      else
        COMPREPLY=($(compgen -W "none" -- "$cur"))
      fi
      return
      ;;
    --add-ca | --in | --out | --CAfile)
      _filedir
      return
      ;;
    --hash)
      COMPREPLY=($(compgen -W "sha1 sha256 sha384 sha512" -- "$cur"))
      return
      ;;
    --padding)
      COMPREPLY=($(compgen -W "pkcs1 oaep" -- "$cur"))
      return
      ;;
    --token-key)
      COMPREPLY=($(compgen -W "library export" -- "$cur"))
      return
      ;;
    --pin-env | --password-env)
      COMPREPLY=($(compgen -v -- "$cur"))
      return
      ;;
    --pin-fd | --password-fd | --servername | --send | --timeout)
      return
      ;;
    --cert)
      ;;
  esac

  if [[ -z $command ]]; then
    if [[ $cur == -* ]]; then
      COMPREPLY=($(compgen -W "$(_x509_auth_options "${words[0]}")" -- "$cur"))
    else
      COMPREPLY=($(compgen -W "$commands" -- "$cur"))
    fi
    return
  fi
  if [[ $command == help ]]; then
    COMPREPLY=($(compgen -W "$commands" -- "$cur"))
    return
  fi
  if [[ $cur == -* ]]; then
    COMPREPLY=($(compgen -W "$(_x509_auth_options "${words[0]}" "$command") \
      $(_x509_auth_options "${words[0]}")" -- "$cur"))
    return
  fi
  case $command in
    chain | sign | decrypt | show | tls)
      # tls takes its certificate after --cert; the others as their argument.
      if [[ $command == tls && $prev != --cert ]]; then return; fi
      local thumbprints
      thumbprints=$("${words[0]}" -q "${global[@]}" list --json 2>/dev/null |
        sed -n 's/^ *"thumbprint": "\([0-9a-f]*\)".*/\1/p')
      COMPREPLY=($(compgen -W "$thumbprints" -- "${cur,,}"))
      ;;
  esac
}
complete -F _x509_auth x509-auth
