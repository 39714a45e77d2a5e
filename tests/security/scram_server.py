"""A small IRC server offering SASL SCRAM-SHA-256 for "user" / "pencil",
checked at start against the RFC 7677 example. Prints its port, then serves
each connection on a thread. A nick "garbage…" gets a challenge that is not
Base64, "flood…" 100 KB of challenge; other nicks the real exchange."""
import base64, hashlib, hmac, socket, threading

SALT, ITER = base64.b64decode("W22ZaJ0SNY7soEsUEjb6gQ=="), 4096
h = lambda key, msg: hmac.new(key, msg, hashlib.sha256).digest()
SALTED = hashlib.pbkdf2_hmac("sha256", b"pencil", SALT, ITER)
STORED, SERVER_KEY = hashlib.sha256(h(SALTED, b"Client Key")).digest(), h(SALTED, b"Server Key")

def final(first_bare, server_first, client_final):
    auth = ",".join((first_bare, server_first, client_final[: client_final.rindex(",p=")])).encode()
    proof = base64.b64decode(client_final[client_final.rindex(",p=") + 3:])
    if hashlib.sha256(bytes(a ^ b for a, b in zip(proof, h(STORED, auth)))).digest() != STORED:
        return None
    return "v=" + base64.b64encode(h(SERVER_KEY, auth)).decode()

R = "rOprNGfwEbeRWgbNEkqO%hvYDpWUa2RaTCAfuxFIlj)hNlF$k0"
assert final("n=user,r=rOprNGfwEbeRWgbNEkqO", "r=%s,s=W22ZaJ0SNY7soEsUEjb6gQ==,i=4096" % R,
             "c=biws,r=%s,p=dHzbZapWIk4jUhN+Ute9ytag9zjfMHgsqmmiz7AndVQ=" % R) \
    == "v=6rriTRBi23WpRR/wtup+mMhUZUn/dB5nLTJRsjl95G4="

def serve(conn):
    f = conn.makefile("rwb")
    say = lambda line: (f.write(line.encode() + b"\r\n"), f.flush())
    nick, step, bare, sf = "*", 0, "", ""
    for raw in f:
        w = raw.decode().split()
        if w[0] == "NICK":
            nick = w[1]
        elif w[:2] == ["CAP", "LS"]:
            say(":scram.test CAP * LS :sasl=SCRAM-SHA-256")
        elif w[:2] == ["CAP", "REQ"] or w == ["AUTHENTICATE", "SCRAM-SHA-256"]:
            say(":scram.test CAP %s ACK :sasl" % nick if w[0] == "CAP" else "AUTHENTICATE +")
        elif w[0] == "AUTHENTICATE" and step == 0:
            step, first = 1, base64.b64decode(w[1]).decode()
            bare = first.split(",", 2)[2]
            sf = "r=%ssrvnonce,s=%s,i=%d" % (bare.split("r=")[1], base64.b64encode(SALT).decode(), ITER)
            answer = {"garbage": "!!not base64!!", "flood": "A" * 100000}.get(
                nick.rstrip("0123456789"), base64.b64encode(sf.encode()).decode())
            for i in range(0, len(answer), 400):
                say("AUTHENTICATE " + answer[i:i + 400])
            if len(answer) % 400 == 0:
                say("AUTHENTICATE +")
        elif w[0] == "AUTHENTICATE" and step == 1:
            step, v = 2, final(bare, sf, base64.b64decode(w[1]).decode())
            say("AUTHENTICATE " + base64.b64encode(v.encode()).decode() if v else ":scram.test 904 %s :failed" % nick)
        elif w[0] == "AUTHENTICATE":
            say(":scram.test 903 %s :SASL authentication successful" % nick)
        elif w[0] == "QUIT":
            return conn.close()

listener = socket.create_server(("127.0.0.1", 0))
print(listener.getsockname()[1], flush=True)
while True:
    threading.Thread(target=serve, args=(listener.accept()[0],), daemon=True).start()
