"""The configurations in docs/server.md, on nginx and Apache as their readers have them: the phone is served by each, without
and with certificates of its own. Beside them, what the page says about the answers and the logs of any server.
"""

import os
import re
import shutil
import socket
import subprocess

import examples
import phone
from files import LABEL, direct

TLS, PHONES = "/srv/tls", "/srv/phones"
MAC = phone.MAC.replace(":", "-")
OTHER = "02-00-5E-10-00-02"
DEVICE = "/etc/zav.d/device.pem"
URL = "https://provisioning.test/%MACD/"

NGINX = """user root; daemon off; master_process off; pid /tmp/nginx.pid; error_log stderr;
events {{ worker_connections 64; }}
http {{
  client_body_temp_path /tmp/n1; proxy_temp_path /tmp/n2; fastcgi_temp_path /tmp/n3; uwsgi_temp_path /tmp/n4;
  scgi_temp_path /tmp/n5;
  include {site};
}}
"""
# What Debian's apache2.conf, ports.conf and `a2enmod ssl` bring.
APACHE = """ServerRoot /tmp
ServerName localhost
PidFile /tmp/apache.pid
Mutex pthread
ErrorLog /tmp/apache.errors
LoadModule mpm_event_module /usr/lib/apache2/modules/mod_mpm_event.so
LoadModule authz_core_module /usr/lib/apache2/modules/mod_authz_core.so
LoadModule ssl_module /usr/lib/apache2/modules/mod_ssl.so
Listen 443
<Directory />
    Require all denied
</Directory>
Include {site}
"""


def blocks(kind):
    return [block for block in examples.blocks("docs/server.md") if block.info == kind]


def example(text):
    """The block that is not tried where the page is tried, because it needs the server: the one with this text."""
    found = [block for block in examples.blocks("docs/server.md") if block.kind == "figure" and text in block.text]
    assert len(found) == 1, found
    return found[0].text


def shell(text, folder="/tmp"):
    done = subprocess.run(["bash", "-c", text], cwd=folder, capture_output=True, text=True, timeout=60, check=False)
    assert done.returncode == 0, done.stdout + done.stderr
    return done.stdout.splitlines()


def listens(port):
    with socket.socket() as connection:
        return connection.connect_ex(("127.0.0.1", port)) == 0


def write(path, text):
    os.makedirs(os.path.dirname(path), exist_ok=True)
    with open(path, "w", encoding="utf-8") as file:
        file.write(text)
    os.chmod(path, 0o644)


def command(kind, site):
    """The server with the page's configuration; Apache refuses to run as root, the only user of this phone."""
    write(f"/tmp/{kind}.site", site)
    write(f"/tmp/{kind}.conf", {"nginx": NGINX, "apache": APACHE}[kind].format(site=f"/tmp/{kind}.site"))
    if kind == "nginx":
        return ["nginx", "-p", "/tmp", "-c", "/tmp/nginx.conf", "-e", "stderr"]
    with open("/proc/sys/net/ipv4/ip_unprivileged_port_start", "w", encoding="ascii") as file:
        file.write("0")
    return ["unshare", "--user", "--map-user=33", "--map-group=33", "apache2", "-D", "FOREGROUND", "-f", "/tmp/apache.conf"]


class ServerTest(phone.PhoneTest):
    settings = {"System.Provision.ProvisioningServer": URL}

    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        phone.service("stop", "server", check=False)
        os.makedirs(TLS)
        for folder in ("/var/log/nginx", "/var/log/apache2"):
            os.makedirs(folder)
            os.chmod(folder, 0o777)
        for name in ("server.crt", "server.key"):
            shutil.copy(f"{phone.HOME}/{name}", TLS)
        # The authority and the certificate of docs/security.md.
        made = [block for block in examples.blocks("docs/security.md") if "phones-ca.crt" in block.text]
        shell(re.sub(r"^zavctl .*$", "", made[0].text, flags=re.M), TLS)
        shutil.move(DEVICE, "/tmp/device.pem")
        for folder in (MAC, OTHER):
            file = f"{PHONES}/{folder}/provisioning.xml"
            write(file, direct([(LABEL, "served")]))
            os.utime(file, (0, 0))  # Apache's ETag for a file that has just changed is a weak one

    def setUp(self):
        super().setUp()
        if os.path.exists(DEVICE):
            os.remove(DEVICE)

    def serve(self, kind, site):
        server = subprocess.Popen(command(kind, site), stdout=subprocess.PIPE, stderr=subprocess.STDOUT)

        def end():
            server.terminate()
            server.communicate()

        self.addCleanup(end)
        phone.wait_until(lambda: server.poll() is not None or listens(443), kind)
        self.assertIsNone(server.poll(), kind)

    def curl(self, path, *options):
        """The status of the answer to a client with these options; "000" if the server hung up."""
        done = subprocess.run(["curl", "-s", "--cacert", f"{phone.HOME}/authority.crt", "-o", "/dev/null", "-w", "%{http_code}", *options,
                               f"https://provisioning.test/{path}"], capture_output=True, text=True, timeout=30, check=False)
        return done.stdout

    def check_plain(self, kind):
        site = blocks(kind)[0].text
        self.serve(kind, site)
        self.assertEqual(self.provision(), "success", self.log.lines())
        self.check_answers()
        self.check_log(re.search(r"/var/log/\S+/phones\.log", site)[0])

    def check_answers(self):
        commands = [line[2:] for line in example("Accept-Ranges").splitlines() if line.startswith("$ ")]
        text = "\n".join(line.replace("curl ", f"curl --cacert {phone.HOME}/authority.crt ") for line in commands)
        *headers, missing, part = shell(text)
        self.assertEqual((missing, part), ("404", "206"))
        names = [line.partition(":")[0].lower() for line in headers]
        self.assertEqual(sorted(names), ["accept-ranges", "etag", "http/1.1 200 ok"])
        self.assertNotIn("W/", "".join(headers))

    def check_log(self, path):
        text = example("has not asked").replace("/var/log/nginx/phones.log", path)
        phone.wait_until(lambda: any("missing.xml" in line for line in shell(text)), lambda: shell(text))
        # `curl -I` and the range above asked for the first phone's file, nobody for the other one's.
        said = [line.split() for line in shell(text)]
        self.assertEqual(said, [[OTHER, "has", "not", "asked"], ["1", "404", "/missing.xml", "192.0.2.10"]])

    def check_mutual(self, kind, refusal):
        self.serve(kind, blocks(kind)[1].text)
        path = f"{MAC}/provisioning.xml"
        self.assertEqual(self.provision(), "fail")
        self.assertEqual(self.curl(path), refusal)
        shutil.copy("/tmp/device.pem", DEVICE)
        self.assertEqual(self.provision(), "success", self.log.lines())
        self.assertEqual(self.curl(path, "--cert", DEVICE), "200")
        self.assertEqual(self.curl(f"{OTHER}/provisioning.xml", "--cert", DEVICE), "403")

    def test_nginx(self):
        self.check_plain("nginx")

    def test_nginx_with_device_certificates(self):
        self.check_mutual("nginx", "400")

    def test_apache(self):
        self.check_plain("apache")

    def test_apache_with_device_certificates(self):
        self.check_mutual("apache", "000")


if __name__ == "__main__":
    phone.main()
