#!/bin/bash
# Lays out a served example API under WORK (and nothing outside it):
#   WORK/root/    appliance root: description and auth files, the session
#                 store, the settings directory, the uploaded files
#                 (var/lib/webapi-demo/files)
#   WORK/cgi/     the example programs, answering at /api/<name>
#   WORK/www/     the admin page (examples/www), served at /, and the page
#                 that opens sharing links at /sharing/
#   WORK/lighttpd.conf, WORK/lighttpd-api.conf, WORK/logs/
#                 MODE cgi: lighttpd runs each program as a CGI program;
#                 MODE fork: it starts each as a fork server, with the
#                 options in FORK_OPTIONS (all programs) and
#                 FORK_OPTIONS_<name> (one), sockets in WORK/sockets/
#   WORK/nginx.conf, WORK/nginx-site.conf   with SERVER nginx: the server
#                 block of nginx-fcgiwrap.conf with this layout's paths, in
#                 a main configuration that keeps every file under WORK
#   WORK/apache.conf, WORK/apache-site.conf with SERVER apache: the same of
#                 apache.conf
#   WORK/root/etc/pam.d/webui   the PAM service logins use: a password file
#                               of crypt hashes (pam_pwdfile), every account
#                               permitted
#   WORK/root/etc/webapi-demo.passwd   that file: user "demo"
#   WORK/root/var/lib/webapi-demo/files/   what Demo.Share lists and links share
#   WORK/root/usr/mero/bin/merosharingchecker  the checker sharing requests run
#   WORK/demo-password  the demo user's password (kept across layouts)
#   EXTRA_PROGRAMS  more programs to serve at /api/<file name> (paths)
# usage: layout.sh BUILD_DIR WORK_DIR PORT [SERVER [MODE]]
#   SERVER lighttpd (default), nginx or apache; MODE cgi (default) or fork
#   (lighttpd only)
set -euo pipefail
umask 077  # the session files below log anyone in who can read them
build=$(realpath "$1")
mkdir -p "$2"
work=$(realpath "$2")
port=$3
server=${4:-lighttpd}
mode=${5:-cgi}
case $server:$mode in
*:cgi | lighttpd:fork) ;;
*) echo "layout: mode $mode is not laid out for $server" >&2; exit 1;;
esac
here=$(dirname "$(realpath "$0")")

rm -rf "$work/root" "$work/cgi" "$work/sockets"
mkdir -p "$work/root/usr/mero/meroman/webapi" "$work/root/etc" "$work/root/var/lib/webapi-demo/files" \
  "$work/cgi" "$work/logs" "$work/www" "$work/tmp"
cp "$here"/../webapi/*.api "$here"/../webapi/*.auth "$work/root/usr/mero/meroman/webapi/"
# Only the user the programs run as may open the description and auth files:
# a process that can open one can also hold its lock past the read's
# time-out. And an auth file that cannot be read refuses every session
# instead of falling back to defaults that ask for no privilege.
chmod 0700 "$work/root/usr/mero/meroman/webapi"
chmod 0600 "$work/root/usr/mero/meroman/webapi"/*
printf 'refuse_unreadable_auth="yes"\n' >"$work/root/etc/meroinfo.conf"
for program in sysinfo settings maintenance auth preferences share files; do
  ln -s "$build/examples/$program" "$work/cgi/$program"
done
for program in ${EXTRA_PROGRAMS:-}; do
  ln -s "$(realpath "$program")" "$work/cgi/$(basename "$program")"
done
mkdir -p "$work/root/usr/mero/bin" "$work/root/var/lib/webapi-demo/files/docs/reports"
ln -s "$build/tools/merosharingchecker" "$work/root/usr/mero/bin/merosharingchecker"
printf 'Welcome to the shared folder.\n' >"$work/root/var/lib/webapi-demo/files/docs/readme.txt"
printf 'quarter,revenue\nQ1,120\nQ2,135\n' >"$work/root/var/lib/webapi-demo/files/docs/reports/q2.csv"
printf 'not shared\n' >"$work/root/var/lib/webapi-demo/files/private.txt"
cp -R "$here"/../www/. "$work/www/"
# The paths go into the configuration as quoted strings and into sed as
# replacement text: refuse what either would misread.
case $work in *[\"\\\|\&]*) echo "layout: unusable characters in $work" >&2; exit 1;; esac
sed -e "s|@PORT@|$port|g" -e "s|@WORK@|$work|g" -e "s|@CGI_DIR@|$work/cgi|g" \
  -e "s|@ROOT@|$work/root|g" "$here/lighttpd.conf.in" >"$work/lighttpd.conf"
if [ "$mode" = fork ]; then
  mkdir -p "$work/sockets"
  : >"$work/lighttpd-api.conf"
  for program in "$work"/cgi/*; do
    name=$(basename "$program")
    options_of=FORK_OPTIONS_$name
    options="${FORK_OPTIONS:-} ${!options_of:-}"
    options=$(echo $options)  # one blank between words, none around
    case $options in *[\"\\\|\&]*) echo "layout: unusable characters in $options" >&2; exit 1;; esac
    sed -e "s|@WORK@|$work|g" -e "s|@CGI_DIR@|$work/cgi|g" -e "s|@ROOT@|$work/root|g" \
      -e "s|@NAME@|$name|g" -e "s|@OPTIONS@|${options:+ $options}|g" -e "/^#/d" \
      "$here/lighttpd-fork.conf.in" >>"$work/lighttpd-api.conf"
  done
else
  sed -e "s|@CGI_DIR@|$work/cgi|g" "$here/lighttpd-cgi.conf.in" >"$work/lighttpd-api.conf"
fi
# The documented configurations themselves, pointed at this layout: its
# port, its programs, its appliance root.
case $server in
nginx)
  sed -e "s|listen 127.0.0.1:8080;|listen 127.0.0.1:$port;|" -e "s|/usr/lib/webapi/cgi/|$work/cgi/|" \
    -e "s|unix:/run/fcgiwrap.socket|unix:$work/fcgiwrap.socket|" \
    -e "s|# fastcgi_param MERO_APPLIANCE_ROOT .*|fastcgi_param MERO_APPLIANCE_ROOT $work/root;|" \
    "$here/nginx-fcgiwrap.conf" >"$work/nginx-site.conf"
  mkdir -p "$work/tmp/nginx"
  cat >"$work/nginx.conf" <<NGINX
daemon off;
pid $work/nginx.pid;
error_log $work/logs/error.log;
worker_processes 2;
events { worker_connections 256; }
http {
    # The path without the query string: a _sid parameter is a session
    # identifier, which must never land in a log.
    log_format webapi '\$remote_addr [\$time_local] "\$request_method \$uri \$server_protocol" \$status \$body_bytes_sent';
    access_log $work/logs/access.log webapi;
    client_body_temp_path $work/tmp/nginx/body;
    fastcgi_temp_path $work/tmp/nginx/fastcgi;
    proxy_temp_path $work/tmp/nginx/proxy;
    uwsgi_temp_path $work/tmp/nginx/uwsgi;
    scgi_temp_path $work/tmp/nginx/scgi;
    include $work/nginx-site.conf;
}
NGINX
  ;;
apache)
  sed -e "s|<VirtualHost 127.0.0.1:8080>|<VirtualHost 127.0.0.1:$port>|" -e "s|/usr/lib/webapi/cgi|$work/cgi|g" \
    -e "s|# SetEnv MERO_APPLIANCE_ROOT .*|SetEnv MERO_APPLIANCE_ROOT $work/root|" \
    "$here/apache.conf" >"$work/apache-site.conf"
  modules=/usr/lib/apache2/modules
  cat >"$work/apache.conf" <<APACHE
ServerRoot $work
ServerName 127.0.0.1
Define APACHE_LOG_DIR $work/logs
LoadModule mpm_event_module $modules/mod_mpm_event.so
LoadModule authz_core_module $modules/mod_authz_core.so
LoadModule alias_module $modules/mod_alias.so
LoadModule env_module $modules/mod_env.so
LoadModule cgid_module $modules/mod_cgid.so
Listen 127.0.0.1:$port
PidFile $work/apache.pid
DefaultRuntimeDir $work/tmp
ScriptSock $work/cgid.sock
ErrorLog $work/logs/error.log
Include $work/apache-site.conf
APACHE
  ;;
lighttpd) ;;
*) echo "layout: unknown server $server" >&2; exit 1;;
esac
chmod go+rx "$work" "$work/cgi" "$work/www"
chmod -R go+rX "$work/www"
chmod go+r "$work/lighttpd.conf" "$work/lighttpd-api.conf"

[ -s "$work/demo-password" ] || openssl rand -base64 12 | tr -d '/+=\n' >"$work/demo-password"
printf 'demo:%s\n' "$(openssl passwd -6 -stdin <"$work/demo-password")" >"$work/root/etc/webapi-demo.passwd"
mkdir -p "$work/root/etc/pam.d"
# nodelay: failed logins are slowed down by the login throttling, not by a
# PAM delay that holds a CGI process for seconds.
cat >"$work/root/etc/pam.d/webui" <<PAM
auth    required pam_pwdfile.so pwdfile=$work/root/etc/webapi-demo.passwd nodelay
account required pam_permit.so
PAM
