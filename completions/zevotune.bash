# Completion of zevotune for bash, with or without the package bash-completion.

# What a word stands for that is typed with backslashes, or behind a quote that is still open.
_zevotune_plain() {
	case $1 in
	\'*) printf %s "${1#\'}" ;;
	*) printf %s "${1//[\\\"]/}" ;;
	esac
}

# Offers the lines of standard input that begin with the word at the cursor.
_zevotune_offer() {
	local word=$1 last=$2 plain skip line
	plain=$(_zevotune_plain "$word")
	# Readline breaks words at ':' and '=' and puts the answer in place of the last part only.
	skip=$(_zevotune_plain "${word%"$last"}")
	while IFS= read -r line; do
		[[ $line == "$plain"* ]] || continue
		line=${line#"$skip"}
		case $word in
		\'*) ;;
		\"*)
			line=${line//\\/\\\\}
			line=${line//\"/\\\"}
			line=${line//\$/\\\$}
			line=${line//\`/\\\`}
			;;
		*) printf -v line %q "$line" ;;
		esac
		COMPREPLY+=("$line")
	done
}

_zevotune_profiles() {
	zevotune list --names 2>/dev/null
}

# Where Btrfs volumes are mounted.
_zevotune_volumes() {
	local path
	findmnt -rno TARGET -t btrfs 2>/dev/null | while IFS= read -r path; do
		printf '%b\n' "$path" # findmnt has blanks as \x20
	done
}

# Not asked of "zevotune config list", which makes a missing configuration when root asks.
_zevotune_keys() {
	printf '%s\n' profile lock btrfs_metadata_cache_on btrfs_metadata_cache_space_usage_limit \
		btrfs_metadata_cache_read_throttle_wait_mult
}

_zevotune_values() {
	case $1 in
	profile) _zevotune_profiles ;;
	lock | btrfs_metadata_cache_on) printf '%s\n' true false ;;
	esac
}

_zevotune() {
	local IFS=$' \t\n'
	COMPREPLY=()

	# The words up to the cursor, without the breaks at ':' and '='.
	local -a words=()
	local line=${COMP_LINE:0:COMP_POINT} before i
	for ((i = 0; i < COMP_CWORD; i++)); do
		before=$line
		line=${line#"${line%%[![:blank:]]*}"}
		if ((i == 0)) || [[ $line != "$before" ]]; then
			words+=("${COMP_WORDS[i]}")
		else
			words[-1]+=${COMP_WORDS[i]}
		fi
		line=${line#"${COMP_WORDS[i]}"}
	done
	before=$line
	line=${line#"${line%%[![:blank:]]*}"}
	local word=$line
	if [[ $line == "$before" && ${#words[@]} -gt 1 ]]; then
		word=${words[-1]}$line
		unset 'words[-1]'
	fi

	# No option takes a value.
	local command='' accepts_options=yes
	local -a arguments=()
	for i in "${words[@]:1}"; do
		if [[ $accepts_options && $i == -- ]]; then
			accepts_options=
		elif [[ $accepts_options && $i == -* ]]; then
			continue
		elif [[ -z $command ]]; then
			command=$i
		elif [[ $command == cache || $command == config ]]; then
			command+=" $i"
		else
			arguments+=("$i")
		fi
	done

	local options='-h --help --json' commands='' wanted=''
	case $command in
	'')
		commands='list current set apply undo plan verify lint devices metadata cache config'
		options+=' --version'
		;;
	list) options+=' --names' ;;
	current | apply | undo | devices | 'config list') ;;
	set | plan | verify) wanted=profile ;;
	lint) wanted=files ;;
	metadata) wanted=volume options+=' --list' ;;
	cache) commands='on off rescan status stop check' ;;
	'cache on' | 'cache off' | 'cache rescan') wanted=volume options+=' --no-wait' ;;
	'cache status') wanted=volume options+=' --watch' ;;
	'cache stop' | 'cache check') wanted=volume ;;
	config) commands='get set list' ;;
	'config get') wanted=key ;;
	'config set')
		options+=' --force'
		wanted=key
		((${#arguments[@]} == 0)) || wanted=value
		;;
	*) return ;;
	esac

	if [[ $accepts_options && $word == -* ]]; then
		_zevotune_offer "$word" "$2" <<<"${options// /$'\n'}"
		return
	fi
	case $wanted in
	'') [[ -z $commands ]] || _zevotune_offer "$word" "$2" <<<"${commands// /$'\n'}" ;;
	files) compopt -o default ;;
	value) ((${#arguments[@]} > 1)) || _zevotune_offer "$word" "$2" < <(_zevotune_values "${arguments[0]}") ;;
	*)
		((${#arguments[@]} == 0)) || return
		_zevotune_offer "$word" "$2" < <("_zevotune_${wanted}s")
		# Any other path on a volume, or a device, will do as well.
		[[ $wanted != volume || ${#COMPREPLY[@]} -gt 0 ]] || compopt -o default
		;;
	esac
}

complete -F _zevotune zevotune
