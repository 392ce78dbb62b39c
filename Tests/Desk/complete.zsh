# Prints what zsh completes at the end of a command line, one line each.
#
# Usage: zsh -f complete.zsh FOLDER LINE
#   FOLDER  holds the completion, named _TOOL
#
# A second shell with a terminal of its own types the line and a tab. Its `compadd` prints what it would add.
zmodload zsh/zpty || exit 1
zpty shell zsh -f -i
zpty -w shell "fpath=(${(q)1} \$fpath); source ${(q)0:A:h}/complete_shell.zsh"
zpty -r -m shell ready '*ready*'
zpty -w -n shell "$2"$'\t'
output=
while zpty -r shell piece; do
    output+=$piece
    [[ $output != *$'\x02'*$'\x03'* ]] || break
done
output=${output#*$'\x02'}
print -rn -- "${${output%%$'\x03'*}//$'\r'/}"
zpty -d shell
