#!/usr/bin/env bash
# Signs the package's images and verifies them: sign.sh PACKAGE_FOLDER WORK_FOLDER [CERTIFICATE KEY]
#
# Without a certificate (PEM) a test certificate is made in WORK_FOLDER, and used again while it is valid.
set -euo pipefail
package=$1 work=$2 certificate=${3:-$2/test-certificate.pem} key=${4:-$2/test-certificate.key}
if [ $# -eq 2 ] && ! openssl x509 -in "$certificate" -noout -checkend 86400 > /dev/null 2>&1; then
    mkdir -p "$work"
    (umask 077 && openssl req -x509 -newkey rsa:3072 -nodes -sha256 -days 730 -subj "/CN=Notifier test signing" \
        -addext extendedKeyUsage=codeSigning -addext keyUsage=digitalSignature -keyout "$key" -out "$certificate")
fi
for machine in arm64 x64; do
    image=$package/$machine/zepn.sys
    rm -f "$image.signed"
    osslsigncode sign -h sha256 -certs "$certificate" -key "$key" -n "Notifier" -in "$image" -out "$image.signed"
    osslsigncode verify -CAfile "$certificate" -in "$image.signed"
    mv "$image.signed" "$image"
done
[ $# -gt 2 ] || openssl x509 -in "$certificate" -outform der -out "$package/test-certificate.cer"
