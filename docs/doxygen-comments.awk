# What a header's comments mean, told to Doxygen line by line: the opening paragraph is the file's, and that of the
# class after which the file is named; a comment holds for all declarations under it, up to a blank line or the next
# comment; copying, moving, assigning and destroying need no words of their own. A folder is a family.
FNR == 1 {
    stem = FILENAME
    sub(/.*\//, "", stem)
    sub(/\.h$/, "", stem)
    match(FILENAME, /(Krt|Backup)\/([A-Za-z]+\/)?/)
    family = substr(FILENAME, RSTART, RLENGTH - 1)
    sub(/\//, "_", family)
    opening = 1
}

# A backslash in a comment is a backslash.
/\/\/.*\\/ {
    at = match($0, /\/\//)
    told = substr($0, at)
    gsub(/\\/, "&&", told)
    $0 = substr($0, 1, at - 1) told
}

opening && /^\/\/ / {
    paragraph = paragraph substr($0, 3)
    print (FNR == 1 ? "/// @file\n/// " : "/// ") substr($0, 4)
    next
}
{ opening = 0 }
/^#pragma once/ { next } # makes up for the line of @file

# A comment begins to hold, or goes on.
/^ *\/\/\/ / {
    if (!inComment)
        comment = ""
    inComment = 1
    indent = match($0, /\/\/\//)
    comment = comment substr($0, indent + 3)
    print
    next
}
/^$/ { comment = "" }

# A class of the file's name that has no comment of its own.
!inComment && !classSeen && /^(class|struct) / && !/;$/ && $0 ~ "[ :]" stem "( |<|$)" {
    classSeen = 1
    print "/**" paragraph " */ /** @ingroup " family " */ " $0
    next
}

# A template's specialisation is told of with the template.
/^(template <>|extern template)/ { inSpecialisation = 1 }
inSpecialisation {
    inSpecialisation = !/;$/
    print ""
    next
}

!inComment && isSpecial($0) {
    match($0, /[^ ]/)
    usual = /= delete;/ ? "Not possible." : "As usual."
    $0 = substr($0, 1, RSTART - 1) "/** " usual " */ " substr($0, RSTART)
    special = 1
}

# A declaration after the first under a comment, without one of its own behind it. What overrides has the comment of
# what it overrides, unless it stands among its like.
!inComment && !special && comment != "" && ended && !/\/\/\/</ && (!/ override/ || afterOverride) &&
    match($0, /[A-Za-z_\[~]/) == indent && !/^ *(public|protected|private|friend class)/ {
    told = "/**" comment " */ " (indent == 1 ? "/** @ingroup " family " */ " : "")
    $0 = substr($0, 1, indent - 1) told substr($0, indent)
}
# What stands in a namespace belongs to the family.
inComment && indent == 1 { $0 = "/** @ingroup " family " */ " $0 }
{
    inComment = special = 0
    ended = /[;},]$|; *\/\/|\/\/\/</
    if (ended)
        afterOverride = / override/
    print
}

# Whether it copies, moves, assigns or destroys.
function isSpecial(line, name) {
    if (line ~ /^ *(virtual )?~[A-Z][A-Za-z]*\(\)/ || line ~ /^ *[A-Z][A-Za-z]*& operator=\(/)
        return 1
    if (!match(line, /^ *[A-Z][A-Za-z]*\(/))
        return 0
    name = substr(line, 1, RLENGTH - 1)
    gsub(/ /, "", name)
    return line ~ "\\((const )?" name "&&?( [a-z]+)?\\)"
}
