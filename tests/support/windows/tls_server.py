"""Answers each POST over TLS with 200. Prints its address. Arguments: the certificate, its key."""
import http.server, ssl, sys


class Handler(http.server.BaseHTTPRequestHandler):
    def do_POST(self):
        self.send_response(200)
        self.end_headers()


server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), Handler)
context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
context.load_cert_chain(*sys.argv[1:])
server.socket = context.wrap_socket(server.socket, server_side=True, do_handshake_on_connect=False)
print(f"https://localhost:{server.server_port}/", flush=True)
server.serve_forever()
