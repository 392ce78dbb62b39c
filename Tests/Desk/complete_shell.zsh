# The shell that `complete.zsh` types into.
PROMPT=
autoload -U compinit
compinit -D -u
zstyle ':completion:*' insert-tab false
bindkey '^I' complete-word

print_start() { print -rn -- $'\x02' }
print_end() { print -r -- $'\x03' }
compprefuncs=(print_start)
comppostfuncs=(print_end)

# Prints what it adds. Calls that only ask for them, and add none, are zsh's own affair.
compadd() {
    if [[ ${@[1,(i)(-|--)]} == *-(O|A|D)\ * ]]; then
        builtin compadd "$@"
        return
    fi
    local -a found
    builtin compadd -A found "$@"
    local -a before after prefix suffix
    zparseopts -E P:=before p:=prefix S:=after s:=suffix
    local match
    for match in $found; do
        print -r -- "$IPREFIX$before[2]$prefix[2]$match$suffix[2]$after[2]"
    done
    builtin compadd "$@"
}
print ready
