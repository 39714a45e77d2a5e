"""A small IRC server that offers SASL SCRAM-SHA-256 for one account,
"user" with the password "pencil", checked at start against the RFC 7677
example exchange. Prints its port, then serves each connection on a thread.
The client's nick picks a misbehaviour after the client's first message:
"garbage" (not Base64), "random" (random bytes), "nonce" (a nonce that does
not extend the client's), "flood" (100 KB of challenge); any other nick gets
the real exchange."""
import base64, hashlib, hmac, os, socket, sys, threading

SALT, ITER = base64.b64decode("W22ZaJ0SNY7soEsUEjb6gQ=="), 4096


def h(key, msg):
    return hmac.new(key, msg, hashlib.sha256).digest()


def keys(password):
    salted = hashlib.pbkdf2_hmac("sha256", password, SALT, ITER)
    return hashlib.sha256(h(salted, b"Client Key")).digest(), h(salted, b"Server Key")


def final(stored, server_key, first_bare, server_first, client_final):
    attrs = dict(kv.split("=", 1) for kv in client_final.split(","))
    without_proof = client_final[: client_final.rindex(",p=")]
    auth = ",".join((first_bare, server_first, without_proof)).encode()
    client_key = bytes(a ^ b for a, b in zip(base64.b64decode(attrs["p"]), h(stored, auth)))
    if hashlib.sha256(client_key).digest() != stored:
        return None
    return "v=" + base64.b64encode(h(server_key, auth)).decode()


STORED, SERVER_KEY = keys(b"pencil")
assert final(STORED, SERVER_KEY, "n=user,r=rOprNGfwEbeRWgbNEkqO",
             "r=rOprNGfwEbeRWgbNEkqO%hvYDpWUa2RaTCAfuxFIlj)hNlF$k0,s=W22ZaJ0SNY7soEsUEjb6gQ==,i=4096",
             "c=biws,r=rOprNGfwEbeRWgbNEkqO%hvYDpWUa2RaTCAfuxFIlj)hNlF$k0,"
             "p=dHzbZapWIk4jUhN+Ute9ytag9zjfMHgsqmmiz7AndVQ=") == "v=6rriTRBi23WpRR/wtup+mMhUZUn/dB5nLTJRsjl95G4="


def serve(conn):
    f = conn.makefile("rwb")
    say = lambda line: (f.write(line.encode() + b"\r\n"), f.flush())
    nick, step, state = "*", 0, {}
    for raw in f:
        words = raw.decode().strip().split(" ")
        if words[0] == "NICK":
            nick = words[1]
        elif words[:2] == ["CAP", "LS"]:
            say(":scram.test CAP * LS :sasl=SCRAM-SHA-256")
        elif words[:2] == ["CAP", "REQ"]:
            say(":scram.test CAP %s ACK :sasl" % nick)
        elif words == ["AUTHENTICATE", "SCRAM-SHA-256"]:
            say("AUTHENTICATE +")
        elif words[0] == "AUTHENTICATE" and step == 0:
            step, first = 1, base64.b64decode(words[1]).decode()
            state["bare"] = first[first.index(",", first.index(",") + 1) + 1:]
            cnonce = dict(kv.split("=", 1) for kv in state["bare"].split(","))["r"]
            state["sf"] = "r=%s%s,s=%s,i=%d" % ("x" if nick == "nonce" else cnonce, "srvnonce",
                                                base64.b64encode(SALT).decode(), ITER)
            answer = {"garbage": "!!not base64!!", "random": base64.b64encode(os.urandom(90)).decode(),
                      "flood": "A" * 100000}.get(nick, base64.b64encode(state["sf"].encode()).decode())
            for i in range(0, len(answer), 400):
                say("AUTHENTICATE " + answer[i:i + 400])
            if len(answer) % 400 == 0:
                say("AUTHENTICATE +")
        elif words[0] == "AUTHENTICATE" and step == 1:
            step = 2
            v = final(STORED, SERVER_KEY, state["bare"], state["sf"], base64.b64decode(words[1]).decode())
            if v is None:
                say(":scram.test 904 %s :SASL authentication failed" % nick)
            else:
                say("AUTHENTICATE " + base64.b64encode(v.encode()).decode())
        elif words[0] == "AUTHENTICATE" and step == 2:
            say(":scram.test 903 %s :SASL authentication successful" % nick)
        elif words[0] == "QUIT":
            break
    conn.close()


listener = socket.socket()
listener.bind(("127.0.0.1", 0))
listener.listen()
print(listener.getsockname()[1], flush=True)
while True:
    c, _ = listener.accept()
    threading.Thread(target=serve, args=(c,), daemon=True).start()
