# Reads the answer to GetParameterAttributes as `kest --raw` prints it: one thing a line, four blanks a level. Of the children of
# the node `path` it prints those of the kind `want`, one a line: objects and tables with their final ".", what takes a value
# with a final "=". Of the parameter `path` itself it prints the values: as JSON texts ("json"), or as execute takes them ("text").
function value() { sub(/^[^:]*: "/, "", text); sub(/"$/, "", text); return text }
function entry(    i, own) {
    if (name == path) {
        table = multi
        if (want != "json" && want != "text") return
        if (type == "boolean") print "true\nfalse"
        for (i = 1; i <= count; i++) {
            if (want == "text") gsub(/^"|"$/, "", values[i])
            print values[i]
        }
        return
    }
    own = name
    sub(/\.$/, "", own)
    if (want == "input") {
        if (direction == "input" && type != "object") print substr(name, length(path) + 2) "="
    } else if (type == "object") print name
    else if (want == "any" || want == type) print name
    else if (want == "readable" && type != "method") print name
    else if (want == "writable" && type != "method" && access == "readWrite") print name "="
    else if (want == "instance" && table && own ~ /\.[0-9]+$/) print name
}
{ match($0, /[^ ]/); level = (RSTART - 1) / 4; text = substr($0, RSTART); sub(/,$/, "", text) }
level == 3 && text == "{" { name = type = access = direction = ""; multi = listing = count = 0 }
level == 4 && $1 == "\"Name\":" { name = value() }
level == 5 { listing = 0 }
level == 5 && $1 == "\"type\":" { type = value() }
level == 5 && $1 == "\"access\":" { access = value() }
level == 5 && $1 == "\"Direction\":" { direction = value() }
level == 5 && $1 == "\"multi\":" { multi = 1 }
level == 5 && $1 == "\"enum\":" { listing = 1 }
level == 6 && listing { values[++count] = text }
level == 3 && text == "}" { entry() }
