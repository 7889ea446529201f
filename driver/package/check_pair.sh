#!/usr/bin/env bash
# Whether the images can be signed with a pair (PEM): check_pair.sh CERTIFICATE KEY. Says in one line why not.
#
# The certificate that signs comes first in its file, those of its issuers follow, up to one that signed itself.
set -euo pipefail
certificate=$1 key=$2
refuse() {
    echo "zepn: $1" >&2
    exit 2
}
for file in "$certificate" "$key"; do
    [ -f "$file" ] && [ -r "$file" ] || refuse "cannot read $file"
done
owner=$(openssl x509 -inform PEM -in "$certificate" -noout -pubkey 2> /dev/null) || refuse "$certificate: no certificate in PEM form"
own=$(openssl pkey -in "$key" -passin pass: -pubout 2> /dev/null) ||
    refuse "$key: no private key in PEM form, or one with a pass phrase"
[ "$owner" = "$own" ] || refuse "$key does not belong to the first certificate in $certificate"
uses=$(openssl x509 -in "$certificate" -noout -ext extendedKeyUsage 2> /dev/null) || uses=''
[[ $uses != *Usage* || $uses == *"Code Signing"* ]] || refuse "$certificate: the certificate is not for code signing"
reason=$(openssl verify -CAfile "$certificate" -untrusted "$certificate" "$certificate" 2>&1) ||
    case $reason in
    *"issuer certificate"*) refuse "$certificate: the certificates of its issuers must follow in the file" ;;
    *) refuse "$certificate: $(sed -n 's/^error.*lookup: *//p' <<< "$reason" | head -n 1)" ;;
    esac
