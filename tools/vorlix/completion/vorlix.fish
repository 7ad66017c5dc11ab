# SPDX-License-Identifier: Apache-2.0
# Completion of vorlix for fish. The program itself says what may stand at a place, so this file never goes out of date.

function __vorlix_complete
    set -l words (commandline -opc)
    set -l token (commandline -ct)
    # A quote may still be open.
    set -l typed (string unescape -- "$token"; or string unescape -- "$token'"; or string unescape -- "$token\"")
    set -l program (string replace -r '^~/' "$HOME/" -- $words[1])
    type -q -- "$program"; or return
    set -l answer ($program complete -- $words[2..-1] "$typed" 2>/dev/null </dev/null)
    set -q answer[1]; or return
    if set -q answer[2]
        printf '%s\n' $answer[2..-1]
    end
    # Fish itself completes paths, as the user has begun to write them.
    set -l before (string match -r -- '^--[^=]*=' "$token")
    set -l path (string replace -r -- '^--[^=]*=' '' "$token")
    set -l found
    switch $answer[1]
        case '* files'
            set found (complete -C "'' $path")
        case '* folders'
            set found (complete -C "'' $path" | string match -r '^[^\t]*/(?:\t.*)?$')
    end
    for line in $found
        printf '%s\n' "$before$line"
    end
end

complete -c vorlix -f -k -a '(__vorlix_complete)'
