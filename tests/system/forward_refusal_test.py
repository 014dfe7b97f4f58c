"""What report-event-forward says, and whether it goes on, when its outbox or the broker is not as it should be."""
import contextlib
import os
import shutil
import signal
import sqlite3

from broker import BrokerTest, free_port, number_in
from programs import FORWARDER, PM, PUBLISHER

# Authorities, and certificates of a broker and of a client, in files of their names.
MAKE_CERTIFICATES = r"""exec 2>&1 && set -e
    authority() { openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -days 30 \
        -subj "/CN=$1" -keyout "$1.key" -out "$1.pem"; }
    signed() { openssl req -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -subj "/CN=$1" \
            -keyout "$1.key" -out "$1.csr" -addext "subjectAltName=$2"
        openssl x509 -req -in "$1.csr" -CA authority.pem -CAkey authority.key -CAcreateserial \
            -copy_extensions copy -days "$3" -out "$1.pem"; }
    authority authority; authority stranger
    signed broker IP:127.0.0.1 30; signed other DNS:elsewhere 30; signed old IP:127.0.0.1 -1; signed client DNS:c 30
"""


class ForwardRefusal(BrokerTest):
    def expect_one_line(self, process, text):
        process.expect_end(1)
        process.await_error("report-event-forward: ")
        process.await_error(text)

    def change(self, name, statement):
        with contextlib.closing(sqlite3.connect(self.path(name))) as database:
            database.execute(statement)
            database.commit()

    def fill(self, name):
        """An outbox whose hundred events take many pages."""
        filling = self.start(FORWARDER, f"--follow --broker mqtt://127.0.0.1:1 --outbox {self.path(name)}")
        name = 288 * "n"
        self.start(PUBLISHER, f"--resource {PM} --wait --quiet --kind device --count 100 --name {name}").expect_end()
        filling.await_error("lost dp:/res/pm/fm")
        filling.expect_stop(signal.SIGTERM)

    def test_names_what_is_wrong_with_the_outbox_and_leaves_it_alone(self):
        self.write("text", 5000 * "g")
        self.change("others", "CREATE TABLE songs (name TEXT)")
        self.fill("newer")
        shutil.copy(self.path("newer"), self.path("locked"))
        shutil.copy(self.path("newer"), self.path("damaged"))
        held = number_in(self.path("newer"), "SELECT count(*) FROM outbox")
        self.change("newer", "PRAGMA user_version = 2")
        os.chmod(self.path("locked"), 0o400)
        with open(self.path("damaged"), "r+b") as file:
            file.seek(4096)
            file.write(8192 * b"g")
        user = self.start(FORWARDER, f"--follow --broker mqtt://127.0.0.1:1 --outbox {self.path('used')}")
        user.await_error("; trying again")
        cases = (
            ("text", ": file is not a database"),
            ("others", ": this is a database of another program"),
            ("newer", ": it has format 2, and this program knows format 1"),
            ("locked", ": it cannot be written"),
            ("damaged", ": database disk image is malformed"),
            ("used", ": another process uses it"),
            ("nowhere/outbox", ": unable to open database file (No such file or directory)"),
        )
        # The owner of a file may write it whatever its permissions if it is root, unless it gives that up.
        without_privilege = "--bounding-set=-dac_override,-dac_read_search " if os.geteuid() == 0 else ""
        for name, text in cases:
            forwarder = self.start("setpriv", f"{without_privilege}{FORWARDER} --follow --broker mqtt://127.0.0.1:1 "
                                   f"--outbox {self.path(name)}")
            self.expect_one_line(forwarder, f"outbox {self.path(name)}{text}")
        self.assertEqual(number_in(self.path("others"), "PRAGMA application_id"), 0)
        self.assertEqual(number_in(self.path("newer"), "SELECT count(*) FROM outbox"), held)

    def listener(self, port, name):
        return (f"listener {port} 127.0.0.1\ncafile {self.path('authority.pem')}\n"
                f"certfile {self.path(name)}.pem\nkeyfile {self.path(name)}.key\n")

    def test_trusts_a_certificate_only_for_its_host_its_time_and_its_authority(self):
        self.shell(f"cd {self.path('')} && {MAKE_CERTIFICATES}").expect_end()
        right, wrong_name, expired = free_port(), free_port(), free_port()
        self.start_broker("allow_anonymous true\n" + self.listener(right, "broker") + "require_certificate true\n" +
                          self.listener(wrong_name, "other") + self.listener(expired, "old"))

        def start(port, authority, arguments=""):
            return self.start(FORWARDER, f"--follow --broker mqtts://127.0.0.1:{port} --outbox {self.outbox} "
                              f"--cafile {self.path(authority)} {arguments}")

        trusting = start(right, "authority.pem", f"--cert {self.path('client.pem')} --key {self.path('client.key')}")
        trusting.await_error("connected to mqtts://127.0.0.1:")
        trusting.expect_stop(signal.SIGTERM)
        self.expect_one_line(start(wrong_name, "authority.pem"), "certificate is refused: IP address mismatch")
        self.expect_one_line(start(wrong_name, "stranger.pem"), "certificate is refused: self-signed certificate in")
        # It may be renewed, or the clock may be wrong.
        waiting = start(expired, "authority.pem")
        waiting.await_error("certificate is refused: certificate has expired; trying again")
        waiting.expect_stop(signal.SIGTERM)

    def test_ends_when_the_broker_wants_other_credentials_or_topics_from_the_start(self):
        passwords = self.path("passwords")
        self.start("mosquitto_passwd", f"-c -b {passwords} device secret").expect_end()
        self.write("acl", "user device\ntopic write allowed/#\ntopic write status/+/status\n")
        self.write("right", "secret\n")
        self.write("wrong", "guess\n")
        settings = f"allow_anonymous false\npassword_file {passwords}\nacl_file {self.path('acl')}\n"
        self.start_broker(settings)
        self.serve(PM, "--kind device --quiet --interval 10 --count 1000000")

        def start(prefix, password):
            return self.forwarder(f"--username device --password-file {self.path(password)} --topic {prefix}")

        self.expect_one_line(start("allowed", "wrong"), "the broker refuses the connection: Not authorized")
        self.expect_one_line(start("forbidden", "right"), "the broker refuses the topic forbidden/")
        # Here it may say that it is there, and not more; the events stay.
        self.expect_one_line(start("status", "right"), "/dp%3A%2Fres%2Fpm%2Ffm/device: Not authorized")
        self.assertEqual(number_in(self.outbox, "SELECT min(seq) FROM outbox"), 1)

        # What has worked is tried again.
        forwarder = start("allowed", "right")
        forwarder.await_error("connected to")
        self.start("mosquitto_passwd", f"-b {passwords} device changed").expect_end()
        self.stop_broker()
        self.start_broker(settings)
        forwarder.await_error("Not authorized; trying again")
        forwarder.expect_stop(signal.SIGTERM)
