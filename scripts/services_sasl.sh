#!/usr/bin/env bash
# inspircd with atheme services on loopback, for the SASL tests: PLAIN with a
# registered account and EXTERNAL over TLS with a client certificate whose
# fingerprint the account holds. Sourced by services.sh. Exports
# ZT_SASL_IRC_PORT, ZT_SASL_IRC_TLS_PORT, ZT_SASL_ACCOUNT, ZT_SASL_PASSWORD and
# ZT_SASL_CERT (PEM: certificate and key). Without the packages nothing is
# exported and the tests that need the server skip.

sasl_services_start() {
  if ! command -v inspircd >/dev/null || ! command -v atheme-services >/dev/null; then
    echo "services: inspircd or atheme-services missing; SASL server tests will skip"
    return 0
  fi
  local dir="$ZT_SERVICES_DIR/sasl" port tls link fp
  mkdir -p "$dir"
  read -r port tls link < <(python3 -c '
import socket
s = [socket.socket() for _ in range(3)]
for x in s: x.bind(("127.0.0.1", 0))
print(*[x.getsockname()[1] for x in s])')
  for who in server client; do
    openssl req -x509 -newkey rsa:2048 -nodes -days 2 -subj "/CN=$who.test.local" \
      -keyout "$dir/$who.key" -out "$dir/$who.crt" 2>/dev/null
  done
  cat "$dir/client.crt" "$dir/client.key" >"$dir/client.pem"
  fp=$(openssl x509 -in "$dir/client.crt" -noout -fingerprint -sha256 | cut -d= -f2 | tr -d : | tr A-F a-f)

  cat >"$dir/inspircd.conf" <<CONF
<server name="irc.test.local" description="zt test" network="ZTTest" id="1ZT">
<admin name="zt" nick="zt" email="zt@test.local">
<bind address="127.0.0.1" port="$port" type="clients">
<bind address="127.0.0.1" port="$tls" type="clients" sslprofile="zt">
<bind address="127.0.0.1" port="$link" type="servers">
<sslprofile name="zt" provider="gnutls" certfile="$dir/server.crt" keyfile="$dir/server.key" hash="sha256" requestclientcert="yes">
<connect name="main" allow="*" resolvehostnames="no" useident="no" timeout="30" pingfreq="300"
         localmax="10000" globalmax="10000" limit="10000" threshold="100000" commandrate="1000000"
         fakelag="no" recvq="65536" softsendq="65536" hardsendq="1048576" maxchans="20">
<dns server="127.0.0.1" timeout="1">
<pid file="$dir/inspircd.pid">
<log method="file" type="* -USERINPUT -USEROUTPUT" level="default" target="$dir/inspircd.log">
<module name="cap"><module name="ircv3"><module name="ircv3_servertime"><module name="ircv3_echomessage">
<module name="services_account"><module name="sasl"><module name="spanningtree"><module name="svshold">
<module name="md5"><module name="ssl_gnutls"><module name="sslinfo">
<sasl target="services.test.local">
<link name="services.test.local" ipaddr="127.0.0.1" port="$link" allowmask="127.0.0.0/8" sendpass="ztlink" recvpass="ztlink">
<uline server="services.test.local" silent="yes">
CONF

  cat >"$dir/atheme.conf" <<CONF
loadmodule "modules/protocol/inspircd";
loadmodule "modules/backend/opensex";
loadmodule "modules/crypto/pbkdf2v2";
loadmodule "modules/nickserv/main";
loadmodule "modules/nickserv/register";
loadmodule "modules/nickserv/identify";
loadmodule "modules/nickserv/cert";
loadmodule "modules/saslserv/main";
loadmodule "modules/saslserv/plain";
loadmodule "modules/saslserv/external";
serverinfo {
  name = "services.test.local"; desc = "zt services"; numeric = "00A"; recontime = 1;
  netname = "ZTTest"; hidehostsuffix = "users.test"; adminname = "zt"; adminemail = "zt@test.local";
  registeremail = "zt@test.local"; mta = "/bin/true"; loglevel = { error; info; };
  maxlogins = 1000; maxusers = 1000; mdlimit = 30; emaillimit = 10; emailtime = 300; auth = none;
  casemapping = rfc1459;
};
uplink "irc.test.local" { host = "127.0.0.1"; port = $link; password = "ztlink"; };
nickserv { nick = "NickServ"; user = "NickServ"; host = "services.test.local"; real = "Nickname Services"; maxnicks = 5; expire = 30; };
saslserv { nick = "SaslServ"; user = "SaslServ"; host = "services.test.local"; real = "SASL"; };
general { flood_msgs = 1000; flood_time = 10; ratelimit_uses = 1000; ratelimit_period = 1; commit_interval = 5; language = "en"; };
CONF

  # Each daemon runs in the service folder without core files: inspircd 3.15
  # crashes at the very end of its shutdown on SIGTERM, after it has closed
  # everything, and would otherwise leave a core wherever the tests started.
  (cd "$dir" && ulimit -c 0 && exec inspircd --nofork --runasroot --config "$dir/inspircd.conf") \
    >"$dir/inspircd.out" 2>&1 &
  echo $! >"$ZT_SERVICES_DIR/inspircd.pid"
  disown $!
  local i
  for i in $(seq 100); do (exec 3<>"/dev/tcp/127.0.0.1/$port") 2>/dev/null && break; sleep 0.1; done
  (cd "$dir" && ulimit -c 0 && exec atheme-services -n -c "$dir/atheme.conf" -D "$dir" -l "$dir/atheme.log" \
    -p "$dir/atheme.pid") >"$dir/atheme.out" 2>&1 &
  echo $! >"$ZT_SERVICES_DIR/atheme.pid"
  disown $!
  for i in $(seq 100); do grep -qs "finished synching with uplink" "$dir/atheme.out" "$dir/atheme.log" && break; sleep 0.1; done

  # The account, with the client certificate's fingerprint on it.
  if ! python3 - "$port" ztsasl ztsecret "$fp" <<'PY'
import socket, sys
port, account, password, fp = sys.argv[1:]
s = socket.create_connection(("127.0.0.1", int(port)), timeout=10)
f = s.makefile("rwb")
def say(line): f.write(line.encode() + b"\r\n"); f.flush()
def wait(word):
    for raw in f:
        line = raw.decode(errors="replace")
        if line.startswith("PING"): say("PONG " + line.split(" ", 1)[1].strip())
        if word in line: return line
    sys.exit("no " + word)
say("NICK " + account); say("USER zt 0 * :zt"); wait(" 001 ")
say("PRIVMSG NickServ :REGISTER %s zt@test.local" % password); wait(" is now registered")
say("PRIVMSG NickServ :CERT ADD " + fp); wait("fingerprint")
say("QUIT")
PY
  then
    echo "services: could not register the SASL account; see $dir"
    return 0
  fi
  export ZT_SASL_IRC_PORT=$port ZT_SASL_IRC_TLS_PORT=$tls ZT_SASL_ACCOUNT=ztsasl ZT_SASL_PASSWORD=ztsecret
  export ZT_SASL_CERT="$dir/client.pem"
}
