#!/bin/sh
# Makes throw-away certificates for trying kep-sim over HTTPS, in DIR:
#   ca.pem                 a test certificate authority (give it to tav-host --ca-file)
#   server.pem server.key  signed by it for 127.0.0.1 and localhost, valid for two days
#   expired.pem            the same key, signed by it, already expired
#   selfsigned.pem selfsigned.key   127.0.0.1 and localhost, signed by nobody we trust
set -eu
dir=${1:?usage: make-test-certs.sh DIR}
mkdir -p "$dir"
cd "$dir"
san="subjectAltName=IP:127.0.0.1,DNS:localhost"
printf '%s\nbasicConstraints=CA:FALSE\nextendedKeyUsage=serverAuth\n' "$san" >server.ext
quiet() { "$@" >/dev/null 2>&1 || { echo "make-test-certs: failed: $*" >&2; exit 1; }; }
quiet openssl req -x509 -newkey rsa:2048 -nodes -keyout ca.key -out ca.pem -days 2 -subj "/CN=kep-sim test CA"
quiet openssl req -newkey rsa:2048 -nodes -keyout server.key -out server.csr -subj "/CN=127.0.0.1"
quiet openssl x509 -req -in server.csr -CA ca.pem -CAkey ca.key -CAcreateserial -days 2 -extfile server.ext -out server.pem
# A negative lifetime ends before it starts: expired from the first second.
quiet openssl x509 -req -in server.csr -CA ca.pem -CAkey ca.key -CAcreateserial -days -1 -extfile server.ext -out expired.pem
quiet openssl req -x509 -newkey rsa:2048 -nodes -keyout selfsigned.key -out selfsigned.pem -days 2 \
    -subj "/CN=127.0.0.1" -addext "$san"
rm -f server.csr server.ext ca.srl
