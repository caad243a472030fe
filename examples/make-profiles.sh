#!/bin/sh
# Generates provisioning profiles the way the platform's build tools ship them: an XML
# property list signed into a CMS (PKCS#7) envelope, DER-encoded, with a throwaway
# self-signed certificate. One profile per distribution environment:
#
#   debug       ProvisionedDevices, Entitlements get-task-allow true
#   ad-hoc      ProvisionedDevices, Entitlements get-task-allow false
#   enterprise  ProvisionsAllDevices true
#   appstore    neither
#
# Usage: make-profiles.sh [--days N] [--team TEAM] [--app-id ID] OUTDIR [ENVIRONMENT...]
#   --days N    ExpirationDate N days from now (default 365; a negative N gives an
#               expired profile)
#   --team      team identifier (default QX7TEAM001)
#   --app-id    application identifier after the team prefix (default com.example.pnx.sample)
# Writes OUTDIR/<environment>.mobileprovision for each environment (default: all four).
# Needs the openssl command and GNU date.
set -eu

days=365
team=QX7TEAM001
app_id=com.example.pnx.sample

usage() {
  echo "usage: $0 [--days N] [--team TEAM] [--app-id ID] OUTDIR [debug|ad-hoc|enterprise|appstore]..." >&2
  exit 2
}

while [ $# -gt 0 ]; do
  case "$1" in
    --days) [ $# -ge 2 ] || usage; days=$2; shift 2 ;;
    --team) [ $# -ge 2 ] || usage; team=$2; shift 2 ;;
    --app-id) [ $# -ge 2 ] || usage; app_id=$2; shift 2 ;;
    -h|--help) usage ;;
    -*) echo "$0: unknown option $1" >&2; usage ;;
    *) break ;;
  esac
done
[ $# -ge 1 ] || usage
outdir=$1
shift
[ $# -ge 1 ] || set -- debug ad-hoc enterprise appstore
case "$days" in
  ''|*[!0-9-]*|-|*?-*) echo "$0: --days needs a whole number, got '$days'" >&2; exit 2 ;;
esac
command -v openssl >/dev/null || { echo "$0: the openssl command is needed" >&2; exit 1; }

mkdir -p "$outdir"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT INT TERM

# A throwaway signing identity: an EC key and a self-signed certificate.
openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes \
  -subj "/CN=PNX Sample Distribution ($team)/O=PNX Samples/OU=$team" \
  -days 400 -keyout "$work/key.pem" -out "$work/cert.pem" 2>/dev/null
certificate=$(openssl x509 -in "$work/cert.pem" -outform DER | base64 -w0)

now=$(date -u +%Y-%m-%dT%H:%M:%SZ)
expires=$(date -u -d "$days days" +%Y-%m-%dT%H:%M:%SZ)
uuid=$(cat /proc/sys/kernel/random/uuid 2>/dev/null | tr a-f A-F || echo 6B1D6A7E-3C2F-4D1B-9E8A-5F4C3B2A1D0E)

devices='	<key>ProvisionedDevices</key>
	<array>
		<string>00008110-000A1C2E3F4B5D6E</string>
		<string>6f1c2d3e4a5b6c7d8e9f0a1b2c3d4e5f6a7b8c9d</string>
	</array>'

# Writes the property list of one environment on stdout.
plist() {
  environment=$1
  get_task_allow=false
  extra=
  case "$environment" in
    debug) get_task_allow=true; extra=$devices ;;
    ad-hoc) extra=$devices ;;
    enterprise) extra='	<key>ProvisionsAllDevices</key>
	<true/>' ;;
    appstore) ;;
    *) echo "$0: unknown environment '$environment' (debug, ad-hoc, enterprise, appstore)" >&2
       exit 2 ;;
  esac
  aps=production
  [ "$environment" = debug ] && aps=development
  cat <<PLIST
<?xml version="1.0" encoding="UTF-8"?>
<!DOCTYPE plist PUBLIC "-//PNX//DTD PLIST 1.0//EN" "PropertyList-1.0.dtd">
<plist version="1.0">
<dict>
	<key>AppIDName</key>
	<string>PNX Sample</string>
	<key>ApplicationIdentifierPrefix</key>
	<array>
		<string>$team</string>
	</array>
	<key>CreationDate</key>
	<date>$now</date>
	<key>DeveloperCertificates</key>
	<array>
		<data>$certificate</data>
	</array>
	<key>Entitlements</key>
	<dict>
		<key>application-identifier</key>
		<string>$team.$app_id</string>
		<key>aps-environment</key>
		<string>$aps</string>
		<key>get-task-allow</key>
		<$get_task_allow/>
		<key>keychain-access-groups</key>
		<array>
			<string>$team.*</string>
		</array>
	</dict>
	<key>ExpirationDate</key>
	<date>$expires</date>
	<key>Name</key>
	<string>PNX Sample $environment – Développement</string>
$extra
	<key>TeamIdentifier</key>
	<array>
		<string>$team</string>
	</array>
	<key>TeamName</key>
	<string>PNX Samples</string>
	<key>TimeToLive</key>
	<integer>$days</integer>
	<key>UUID</key>
	<string>$uuid</string>
	<key>Version</key>
	<integer>1</integer>
</dict>
</plist>
PLIST
}

for environment in "$@"; do
  plist "$environment" > "$work/$environment.plist"
  openssl cms -sign -nodetach -binary -outform DER \
    -signer "$work/cert.pem" -inkey "$work/key.pem" \
    -in "$work/$environment.plist" -out "$outdir/$environment.mobileprovision"
done
