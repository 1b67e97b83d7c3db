#!/bin/bash
# Lays out a served example API under WORK (and nothing outside it):
#   WORK/root/    appliance root: description and auth files, the session
#                 store, the settings directory, the uploaded files
#                 (var/lib/webapi-demo/files)
#   WORK/cgi/     the example programs, answering at /api/<name>
#   WORK/lighttpd.conf, WORK/logs/, WORK/www/
#   WORK/root/etc/pam.d/webui   the PAM service logins use: a password file
#                               of crypt hashes (pam_pwdfile), every account
#                               permitted
#   WORK/root/etc/webapi-demo.passwd   that file: user "demo"
#   WORK/demo-password  the demo user's password (kept across layouts)
# usage: layout.sh BUILD_DIR WORK_DIR PORT
set -euo pipefail
umask 077  # the session files below log anyone in who can read them
build=$(realpath "$1")
mkdir -p "$2"
work=$(realpath "$2")
port=$3
here=$(dirname "$(realpath "$0")")

rm -rf "$work/root" "$work/cgi"
mkdir -p "$work/root/usr/mero/meroman/webapi" "$work/root/etc" "$work/root/var/lib/webapi-demo/files" \
  "$work/cgi" "$work/logs" "$work/www" "$work/tmp"
cp "$here"/../webapi/*.api "$here"/../webapi/*.auth "$work/root/usr/mero/meroman/webapi/"
for program in sysinfo settings maintenance auth files; do
  ln -s "$build/examples/$program" "$work/cgi/$program"
done
printf '<!doctype html><title>libwebapi demo</title><p>The API is under /api/.</p>\n' \
  >"$work/www/index.html"
# The paths go into the configuration as quoted strings and into sed as
# replacement text: refuse what either would misread.
case $work in *[\"\\\|\&]*) echo "layout: unusable characters in $work" >&2; exit 1;; esac
sed -e "s|@PORT@|$port|g" -e "s|@WORK@|$work|g" -e "s|@CGI_DIR@|$work/cgi|g" \
  -e "s|@ROOT@|$work/root|g" "$here/lighttpd.conf.in" >"$work/lighttpd.conf"
chmod go+rx "$work" "$work/cgi" "$work/www"
chmod go+r "$work/www/index.html" "$work/lighttpd.conf"

[ -s "$work/demo-password" ] || openssl rand -base64 12 | tr -d '/+=\n' >"$work/demo-password"
printf 'demo:%s\n' "$(openssl passwd -6 -stdin <"$work/demo-password")" >"$work/root/etc/webapi-demo.passwd"
mkdir -p "$work/root/etc/pam.d"
# nodelay: failed logins are slowed down by the login throttling, not by a
# PAM delay that holds a CGI process for seconds.
cat >"$work/root/etc/pam.d/webui" <<PAM
auth    required pam_pwdfile.so pwdfile=$work/root/etc/webapi-demo.passwd nodelay
account required pam_permit.so
PAM
