#!/usr/bin/env bash
# The shipped nginx site in front of a real qm-server, both on free loopback ports: nginx accepts
# the site, a sign-in over HTTPS works end to end with HSTS, old TLS and ciphers without forward
# secrecy are refused, an oversized body is refused, and release archives come through whole.
# Says SKIPPED (exit 77) when nginx is not installed. Both servers stop on every way out, and
# within 100 s even when this script is killed outright.
#   proxy_test.sh QM_SERVER SITE_FILE
set -uo pipefail
server=$1 site=$2
export PATH=$PATH:/usr/sbin:/sbin
nginx=$(command -v nginx) || { echo "SKIPPED: nginx is not installed (scripts/bootstrap installs it)"; exit 77; }

work=$(mktemp -d /tmp/qm-proxy-XXXXXX)
chmod 755 "$work"  # nginx's workers run as nobody
pids=()
trap 'for p in "${pids[@]}"; do kill "$p" 2>/dev/null; wait "$p" 2>/dev/null; done; rm -rf "$work"' EXIT
failed=0
fail() { echo "FAIL: $*"; failed=1; }
die() { echo "FAIL: $*"; cat "$work"/*.log 2>/dev/null; exit 1; }
port_open() { (exec 3<>"/dev/tcp/127.0.0.1/$1") 2>/dev/null; }
free_port() { local p; while p=$((20000 + RANDOM % 40000)); port_open "$p"; do :; done; echo "$p"; }
wait_for_port() { for _ in {1..100}; do port_open "$1" && return; sleep 0.1; done; die "$2 never listened on port $1"; }

host=account.quillmate.org password='a password for the proxy test'
service_port=$(free_port) https_port=$(free_port) http_port=$(free_port)
openssl req -x509 -newkey rsa:2048 -nodes -days 2 -subj "/CN=$host" -addext "subjectAltName=DNS:$host" \
  -keyout "$work/privkey.pem" -out "$work/fullchain.pem" 2>/dev/null || die "openssl made no certificate"

# The site as shipped, on this test's ports and certificate; every substitution must have matched.
sed -e "s|^    listen 443 ssl;|    listen 127.0.0.1:$https_port ssl;|" \
    -e "s|^    listen 80;|    listen 127.0.0.1:$http_port;|" -e '/^    listen \[::\]:/d' \
    -e "s|^    server 127.0.0.1:8080;|    server 127.0.0.1:$service_port;|" -e "s|/etc/ssl/qm-server/|$work/|" \
    "$site" >"$work/site.conf"
for line in "listen 127.0.0.1:$https_port ssl;" "listen 127.0.0.1:$http_port;" "server 127.0.0.1:$service_port;" \
            "ssl_certificate $work/fullchain.pem;" "ssl_certificate_key $work/privkey.pem;"; do
  grep -qF "$line" "$work/site.conf" || die "the site file no longer has the line this test rewrites to: $line"
done
mkdir -p "$work/tmp" "$work/releases"
chmod 1777 "$work/tmp"
cat >"$work/nginx.conf" <<EOF
$([[ $(id -u) == 0 ]] && echo "user nobody $(id -gn nobody);")
worker_processes 1;
pid $work/nginx.pid;
error_log $work/nginx.log;
events { worker_connections 64; }
http {
  access_log off;
  client_body_temp_path $work/tmp/body; proxy_temp_path $work/tmp/proxy; fastcgi_temp_path $work/tmp/fastcgi;
  uwsgi_temp_path $work/tmp/uwsgi; scgi_temp_path $work/tmp/scgi;
  include $work/site.conf;
}
EOF
nginx_args=(-p "$work/" -c "$work/nginx.conf" -e "$work/nginx.log")
"$nginx" -t -q "${nginx_args[@]}" || die "nginx -t refuses the site"

printf '%s\n' "$password" | "$server" add-user --db "$work/accounts.db" --fast-hash-for-tests owner@example.org \
  >/dev/null || die "add-user"
head -c 3000000 /dev/urandom >"$work/releases/QuillmateFlasher-9.9.9.zip"
timeout 100 "$server" --db "$work/accounts.db" --listen "127.0.0.1:$service_port" --base-url "https://$host" \
  --trusted-proxy 127.0.0.1 --releases "$work/releases" --fast-hash-for-tests >"$work/service.log" 2>&1 &
pids+=($!)
timeout 100 "$nginx" "${nginx_args[@]}" -g 'daemon off;' &
pids+=($!)
wait_for_port "$service_port" qm-server
wait_for_port "$https_port" nginx

# One request through nginx; the status in $status, the body in $work/body, the headers in $work/headers.
request() {  # path [curl options...]
  local path=$1
  shift
  status=$(curl -sS --max-time 20 --cacert "$work/fullchain.pem" --resolve "$host:$https_port:127.0.0.1" \
             -o "$work/body" -D "$work/headers" -w '%{http_code}' "$@" "https://$host:$https_port$path")
}

request /api/v1/auth/login -H 'Content-Type: application/json' \
  --data "{\"email\":\"owner@example.org\",\"password\":\"$password\"}"
[[ $status == 200 ]] || fail "sign-in through nginx answered $status: $(cat "$work/body")"
token=$(sed -n 's/.*"token" *: *"\([^"]*\)".*/\1/p' "$work/body")
[[ -n $token ]] || fail "the sign-in's answer holds no token"
grep -qi '^strict-transport-security: max-age=[1-9]' "$work/headers" || fail "no HSTS header: $(cat "$work/headers")"
request /api/v1/me -H "Authorization: Bearer $token"
[[ $status == 200 ]] && grep -qF owner@example.org "$work/body" || fail "the token did not reach the service: $status"
request /api/v1/auth/logout --data "" -H "Authorization: Bearer $token"
[[ $status == 200 ]] || fail "sign-out through nginx answered $status"
request /api/v1/me -H "Authorization: Bearer $token"
[[ $status == 401 ]] || fail "a revoked token still answers $status"

# What a client may offer, and whether nginx must complete the handshake.
while read -r expect what options; do
  # shellcheck disable=SC2086  # options are words
  if request / $options 2>/dev/null; then got=accepted; else got=refused; fi
  [[ $got == "$expect" ]] || fail "$what: $got"
done <<'EOF'
accepted TLS-1.3                      --tlsv1.3
accepted TLS-1.2-ECDHE                --tlsv1.2 --tls-max 1.2 --ciphers ECDHE-RSA-AES128-GCM-SHA256
refused  TLS-1.2-RSA-key-exchange     --tlsv1.2 --tls-max 1.2 --ciphers AES128-GCM-SHA256
refused  TLS-1.1                      --tlsv1.1 --tls-max 1.1 --ciphers DEFAULT:@SECLEVEL=0
EOF

head -c $((1024 * 1024 + 1)) /dev/zero >"$work/big"
request /api/v1/auth/login -H 'Content-Type: application/json' --data-binary "@$work/big"
[[ $status == 413 ]] || fail "a body over 1 MiB answered $status"
request /releases/QuillmateFlasher-9.9.9.zip
[[ $status == 200 ]] && cmp -s "$work/body" "$work/releases/QuillmateFlasher-9.9.9.zip" ||
  fail "the release archive came through nginx as $status, $(stat -c %s "$work/body") bytes"
redirect=$(curl -sS --max-time 20 -o /dev/null -w '%{http_code} %{redirect_url}' "http://127.0.0.1:$http_port/d/x")
[[ $redirect == "301 https://127.0.0.1/d/x" ]] || fail "plain HTTP answered $redirect"

((failed)) && { echo "--- nginx.log"; cat "$work/nginx.log"; echo "--- service.log"; cat "$work/service.log"; }
exit $failed
