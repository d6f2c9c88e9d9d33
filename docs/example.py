"""Prints the serial number that ktclientd reports: python3 example.py [SOCKET]"""
import json, socket, struct, sys

request = json.dumps({"sensor": {"hardware": None}}).encode()
with socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET) as client:
    client.connect(sys.argv[1] if sys.argv[1:] else "/run/ktclientd/ktclientd.sock")
    client.sendall(struct.pack("=I", len(request)))  # a separate record
    client.sendall(request)
    header = client.recv(4)  # empty if the daemon has closed the connection
    payload = client.recv(*struct.unpack("=I", header)) if header else sys.exit("no answer")
print(json.loads(payload))
