# shellcheck shell=sh
# Sourced by the long tests whose blows several processes share.
# KESTRO_PROCESSES: how many processes, one more than there are cores when not set.

# deal_blows LOG COMMAND...: the command in each process with its share; what each printed, in LOG.I, is shown
# behind the last one.
deal_blows() {
    log=$1
    shift
    shares=${KESTRO_PROCESSES:-$(($(nproc) + 1))}
    share=1
    while [ "$share" -le "$shares" ]; do
        { KESTRO_SHARE=$share/$shares "$@" && echo "share done"; } >"$log.$share" 2>&1 &
        share=$((share + 1))
    done
    wait
    failed=
    share=1
    while [ "$share" -le "$shares" ]; do
        # What each tells of an operation, the others may not have come to.
        sed '/ of [0-9]* blows/d; /^share done$/d' "$log.$share"
        tail -n 1 "$log.$share" | grep -qx "share done" || failed=yes
        share=$((share + 1))
    done
    [ -z "$failed" ]
}

# dealt_blows FILE UNIT: a line for each operation, and what they are together.
dealt_blows() {
    awk -F '\t' -v unit="$2" '
        $1 == "plan" { order[++operations] = $2; plan[$2] = $3; places += $3 }
        $1 == "done" || $1 == "missed" { dealt[$2]++; blows++ }
        $1 == "missed" { missed[$2]++; unreached++ }
        END {
            for (i = 1; i <= operations; i++) {
                name = order[i]
                sub(/#/, dealt[name] + 0, plan[name])
                print name ": " plan[name] (missed[name] ? ", " missed[name] " not reached" : "")
            }
            print operations " operations, " places " " unit ", " blows " blows, " unreached + 0 " of them not reached"
        }' "$1"
}
