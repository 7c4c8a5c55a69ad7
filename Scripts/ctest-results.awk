# Reads the result file of ctest --output-junit. The first line it prints has three numbers: tests
# passed, failed and skipped. Then comes one line for each skipped test, with the reason that the
# test printed: behind "Skipped: ", or as GoogleTest does in the line after "...: Skipped".

function plain(text) {
    gsub(/&lt;/, "<", text)
    gsub(/&gt;/, ">", text)
    gsub(/&quot;/, "\"", text)
    gsub(/&apos;/, "'", text)
    gsub(/&amp;/, "\\&", text)
    return text
}

function attribute(name) {
    if (!match($0, name "=\"[^\"]*\"")) return ""
    return plain(substr($0, RSTART + length(name) + 2, RLENGTH - length(name) - 3))
}

/<testcase / {
    test = attribute("name")
    status = attribute("status")
    reason = "it gives no reason"
    skipped_on_purpose = 0
}
/<skipped message="SKIP_/ { skipped_on_purpose = 1 }
reason_follows { reason = plain($0); reason_follows = 0 }
/: Skipped$/ { reason_follows = 1 }
match($0, /Skipped: /) { reason = plain(substr($0, RSTART + RLENGTH)) }
/<\/testcase>/ {
    if (status == "run") {
        ++passed
    } else if (status == "notrun" && skipped_on_purpose) {
        ++skipped
        lines = lines test ": " reason "\n"
    } else {
        ++failed
    }
}
END { printf "%d %d %d\n%s", passed, failed, skipped, lines }
