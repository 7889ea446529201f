#!/usr/bin/env bash
# Signs the package's images and verifies them: sign.sh PACKAGE_FOLDER WORK_FOLDER [CERTIFICATE KEY]
#
# Without a certificate (PEM) a test certificate is made in WORK_FOLDER, and used again while it is valid. With
# ZEPN_TIMESTAMP_URL a time-stamping authority countersigns, so that the signatures outlive the certificate; the
# authority's root must be among this machine's certificates.
set -euo pipefail
package=$1 work=$2 certificate=${3:-$2/test-certificate.pem} key=${4:-$2/test-certificate.key}
if [ $# -eq 2 ] && ! openssl x509 -in "$certificate" -noout -checkend 86400 > /dev/null 2>&1; then
    mkdir -p "$work"
    (umask 077 && openssl req -x509 -newkey rsa:3072 -nodes -sha256 -days 730 -subj "/CN=Notifier test signing" \
        -addext extendedKeyUsage=codeSigning -addext keyUsage=digitalSignature -keyout "$key" -out "$certificate")
fi
stamp=() stamp_roots=()
if [ -n "${ZEPN_TIMESTAMP_URL:-}" ]; then
    stamp=(-ts "$ZEPN_TIMESTAMP_URL")
    stamp_roots=(-TSA-CAfile "${SSL_CERT_FILE:-/etc/ssl/certs/ca-certificates.crt}")
fi
find "$package" -name '*.sys' | sort | while IFS= read -r image; do
    rm -f "$image.signed"
    # Page hashes: pages that are read in late are checked one by one.
    osslsigncode sign -h sha256 -ph -certs "$certificate" -key "$key" -n "Notifier" "${stamp[@]}" \
        -in "$image" -out "$image.signed"
    osslsigncode verify -CAfile "$certificate" "${stamp_roots[@]}" -in "$image.signed"
    mv "$image.signed" "$image"
done
