# The demonstration's fleet: simulated boards, a broker, a database, the history between them, and the page that shows
# all boards. Sourced by scripts/demo, of which it uses folder, started, once and functions.
# shellcheck shell=bash disable=SC2154

boards=10
week=-7d
read_back=axis1.temperature

start_database() {
    database=$(free_port 8428)
    victoria-metrics -storageDataPath="$folder/data" -httpListenAddr="127.0.0.1:$database" -retentionPeriod=1y \
        -dedup.minScrapeInterval=1ms -search.latencyOffset=0s >"$folder/database.log" 2>&1 &
    started+=($!)
    wait_for "$database" database
}

start_history() {
    mkdir "$folder/history"
    printf '%s\n' "[broker]" "url = mqtt://127.0.0.1:$port" "[database]" "url = http://127.0.0.1:$database/write" \
        >"$folder/history.ini"
    STATE_DIRECTORY=$folder/history clients/python/vorbel-history "$folder/history.ini" 2>"$folder/history.log" &
    started+=($!)
    until grep -q "broker: connected" "$folder/history.log"; do
        kill -0 "${started[-1]}" 2>/dev/null || { cat "$folder/history.log" >&2; fail "no history (see above)"; }
        sleep 0.1
    done
}

start_boards() {
    build/release/sim/vorbel_sim_fleet --broker "mqtt://127.0.0.1:$port" --boards $boards --past 7 \
        >"$folder/boards.log" 2>&1 &
    started+=($!)
}

# read_back BOARD FROM: the values that the history has of it.
read_back() {
    clients/python/vorbel-cli history "$1" $read_back --from "$2" --csv --database "http://127.0.0.1:$database"
}

# wait_for_week: until the history has the last minutes of the last board, and with them the week before.
wait_for_week() {
    local seconds=0
    say "$boards boards publish a week of theirs, a reading a minute each:"
    until [ "$(read_back board$boards -10s 2>/dev/null | wc -l)" -gt 3 ]; do
        [ $((seconds += 1)) -le 120 ] || { cat "$folder/history.log" >&2; fail "no values in the history (see above)"; }
        printf '\r%s values' "$(sed -n '$s/.*"published":\([0-9]*\).*/\1/p' "$folder/boards.log")" >&2
        sleep 1
    done
    echo >&2
}

# check_week: that there is as much of it as there has to be.
check_week() {
    local count board
    for board in 1 $boards; do
        count=$(read_back "board$board" $week | wc -l)
        say "The history of board$board $read_back: $count values"
        [ "$count" -ge 10080 ] || fail "a reading a minute of seven days is 10080"
    done
}

# serve_fleet: the page, and behind its own address the broker and the history, which is all that it may connect to.
serve_fleet() {
    local page
    build_monitor || return 0
    page=$(free_port 8443)
    cat >"$folder/nginx.conf" <<END
pid $folder/nginx.pid;
error_log stderr;
daemon off;
events {}
http {
    include /etc/nginx/mime.types;
    access_log off;
    client_body_temp_path $folder/nginx-body;
    proxy_temp_path $folder/nginx-proxy;
    fastcgi_temp_path $folder/nginx-fastcgi;
    uwsgi_temp_path $folder/nginx-uwsgi;
    scgi_temp_path $folder/nginx-scgi;
    server {
        listen 127.0.0.1:$page;
        root $folder/monitor;
        location = /mqtt {
            proxy_pass http://127.0.0.1:$sockets/mqtt;
            proxy_http_version 1.1;
            proxy_set_header Upgrade \$http_upgrade;
            proxy_set_header Connection upgrade;
            proxy_set_header Sec-WebSocket-Protocol \$http_sec_websocket_protocol;
        }
        location = /history/api/v1/query_range {
            proxy_pass http://127.0.0.1:$database/api/v1/query_range;
        }
    }
}
END
    chmod a+rx "$folder" # its workers are another user, when root starts it
    /usr/sbin/nginx -c "$folder/nginx.conf" 2>"$folder/nginx.log" &
    started+=($!)
    wait_for "$page" nginx
    say "All boards on one page (any user's name, and no password): http://127.0.0.1:$page/?fleet"
}

show_fleet() {
    need "${build_packages[@]}" "${client_packages[@]}" mosquitto mosquitto-clients victoria-metrics python3-paho-mqtt \
        nginx-light
    build release --target vorbel_sim_fleet
    sockets=$(free_port 9001)
    start_broker "listener $sockets 127.0.0.1" "protocol websockets"
    start_database
    start_history
    start_boards
    wait_for_week
    if [ -n "$once" ]; then
        check_week
        return
    fi
    serve_fleet
    say "The past of one value:
  clients/python/vorbel-cli history board1 $read_back --from $week --plot week.png --database http://127.0.0.1:$database
What a board is told, and does:
  mosquitto_pub -p $port -q 1 -t vorbel/board1/set/demo/axis1/setpoint -m 900
Ctrl-C ends everything."
    mosquitto_sub -v -p "$port" -t 'vorbel/+/status' -t 'vorbel/+/done'
}
