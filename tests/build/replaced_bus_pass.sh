#!/bin/bash
# replaced_bus_pass.sh FOLDER: one pass on a phone whose programs, in FOLDER, are on the example's bus. Runs inside
# lab/phone without its broker, property service and daemon.
set -euo pipefail
bin=$1
mkdir -p /run/unix-bus
"$bin/unix-bus" localhost &
"$bin/prop-service" --store /config/properties.db --catalogue "$LAB_PROJECT/services/property-service/catalogue.json" &
trap 'kill %1 %2' EXIT

ready=no
for ((tries = 0; tries < 1000; tries++)); do
    zavctl get NET.MAC.Address >/dev/null 2>&1 && { ready=yes; break; }
    sleep 0.02
done
[ $ready = yes ] || { echo "the property service does not answer"; exit 1; }
zavctl set NET.MAC.Address 02:00:5E:10:00:01
zavctl set System.Provision.ProvisioningServer https://provisioning.test/
zavctl set State.Provisioning.OnBootUp done
cp "$LAB_PROJECT/lab/fixtures/direct/provisioning.xml" /srv/www/
service start daemon
service ready daemon
zavctl provision --wait
echo "the name is $(zavctl get Telephony.Accounts.0.DisplayName)"
service stop daemon
