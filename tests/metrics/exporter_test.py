"""The exporter: what it serves, to whom, and that it keeps serving while drivers hang and clients misbehave."""

from __future__ import annotations

import base64
import concurrent.futures
import json
import os
import re
import resource
import socket
import ssl
import subprocess
import tempfile
import time
import unittest
from pathlib import Path
from typing import Any

from exporters import Exporter, small_host
from simulated_host import BUILD, PATIENCE, SLOWLY, wait_until

HERE = Path(__file__).parent
HOST_FILE, PAGE_FILE = HERE.parent / "trelmctl/hosts/metrics.json", HERE / "page.html"
REQUESTS = int(os.environ.get("REQUESTS", "1000"))  # for the memory test


class ExporterTest(unittest.TestCase):
    def start(self, *options: str, host: Any = None, **settings: str) -> Exporter:
        exporter = Exporter(host or small_host(), *options, **settings)
        self.addCleanup(exporter.end)
        return exporter

    def test_serves_metrics_health_and_a_page_and_ends_in_order(self) -> None:
        for address in ("127.0.0.1:0", "[::1]:0", ":0", f"unix:{BUILD}/exporter-test.sock"):
            with self.subTest(address):
                exporter = self.start(address=address)
                status, headers, text = exporter.get()
                self.assertEqual((status, headers["Content-Type"]), (200, "text/plain; version=0.0.4; charset=utf-8"))
                self.assertIn('# TYPE trelm_rx_bytes_total counter\ntrelm_rx_bytes_total{port="0"} ', text)
                self.assertNotIn("warning", exporter.errors())
                self.assertEqual(exporter.end(), 0)
        exporter = self.start(address="0.0.0.0:0")
        exporter.wait_for_address()
        self.assertIn("warning: anyone who reaches 0.0.0.0:", exporter.errors())
        exporter = self.start()
        _, headers, text = exporter.get(Accept="application/openmetrics-text;version=1.0.0,*/*;q=0.1")
        self.assertTrue(headers["Content-Type"].startswith("application/openmetrics-text; version=1.0.0"))
        self.assertTrue(text.endswith("# EOF\n"))
        self.assertEqual(exporter.get("/healthz")[::2], (200, "ok\n"))
        self.assertEqual(exporter.get("/healthz")[1]["Content-Type"], "text/plain; charset=utf-8")
        self.assertEqual([exporter.get("/x")[::2], exporter.get(method="POST")[0]], [(404, "The paths are /metrics, /healthz and /.\n"), 405])

    def test_shows_people_a_page_with_all_ports_and_a_picture(self) -> None:
        host = json.loads(re.sub(r"//.*", "", HOST_FILE.read_text(encoding="utf-8")))
        page = self.start("--luns", host=host).get("/")[2]
        page = re.sub(r"<(svg|rect|path) .*\n|<text [^>]*>|</text>", "", page)  # of the picture its texts
        page = re.sub(r"in \d+ ms by trelmctl [\d.]+", "in * ms by trelmctl *", page)
        if "TRELM_REFRESH_GOLDEN" in os.environ:
            PAGE_FILE.write_text(page, encoding="utf-8")
        self.assertEqual(page, PAGE_FILE.read_text(encoding="utf-8"))

    def test_dates_counters_to_their_reset(self) -> None:
        exporter = self.start()
        self.assertGreater(exporter.metrics()['trelm_rx_frames_total{port="0"}'], 7)
        exporter.host["adapters"][0]["ports"][0]["counters"] = {"rx_fcoe_frames": 7, "rx_fcoe_bytes": 10**9}
        sampled = time.time()
        exporter.write()
        after = wait_until(lambda: (found := exporter.metrics())['trelm_rx_frames_total{port="0"}'] == 7 and found)
        self.assertAlmostEqual(after['trelm_rx_frames_created{port="0"}'], sampled, delta=PATIENCE)
        self.assertFalse({'trelm_rx_frames_created{port="1"}', 'trelm_rx_bytes_created{port="0"}'} & after.keys())

    def test_loads_anew_for_a_port_that_fails_but_not_at_once(self) -> None:
        begun = time.monotonic()
        exporter = self.start("--reload", "1000")
        self.assertEqual(exporter.metrics()["trelm_physical_ports"], 2)
        exporter.host = small_host(3)
        exporter.host["faults"] = [{"operation": "port_stats", "port": "port-0", "status": 5, "count": "always"}]
        exporter.write()
        wait_until(lambda: exporter.metrics()["trelm_physical_ports"] == 3, patience=30)
        self.assertGreater(time.monotonic() - begun, 10)

    def test_goes_on_without_ports_that_hang(self) -> None:
        exporter = self.start("--deadline", "1", host=small_host(6), before=SLOWLY)
        hanging = [exporter.hanging(port) for port in range(5)]
        self.assertEqual(exporter.metrics()['trelm_scrape_success{port="0"}'], 1)
        for hang in hanging:
            hang.touch()
        for _ in range(2):
            late = exporter.metrics()
            self.assertEqual([late[f'trelm_scrape_late{{port="{port}"}}'] for port in range(6)], [1] * 5 + [0])
            self.assertEqual([late[f'trelm_scrape_success{{port="{port}"}}'] for port in range(6)], [0] * 5 + [1])
            self.assertNotIn('trelm_rx_frames_total{port="0"}', late)
            self.assertIn('trelm_rx_frames_total{port="5"}', late)
        self.assertIn("no answer in time", exporter.get("/")[2])
        for hang in hanging:
            hang.unlink()
        wait_until(lambda: all(exporter.metrics()[f'trelm_scrape_success{{port="{port}"}}'] == 1 for port in range(6)))
        hanging[0].touch()
        exporter.metrics()
        self.assertEqual(exporter.end(), 0)

    def test_names_the_ports_whose_drivers_hang_while_they_are_listed_anew(self) -> None:
        exporter = self.start("--deadline", "0.5", "--reload", "0.01", before=SLOWLY)
        hang = exporter.hanging(0)

        def begin_to_hang_after_a_sample() -> Any:
            hang.unlink(missing_ok=True)
            exporter.metrics()
            hang.touch()
            found = exporter.metrics()
            return found["trelm_library_loaded"] == 0 and found

        late = wait_until(begin_to_hang_after_a_sample)
        for port in range(2):
            self.assertEqual((late[f'trelm_scrape_success{{port="{port}"}}'], late[f'trelm_scrape_late{{port="{port}"}}']), (0, 1))

    def test_serves_before_the_drivers_list_their_ports(self) -> None:
        exporter = self.start("--deadline", "0.2", before=SLOWLY + "touch hang-0; ")
        self.assertEqual(exporter.metrics()["trelm_library_loaded"], 0)
        self.assertEqual(exporter.get("/healthz")[0], 200)
        exporter.hanging(0).unlink()
        wait_until(lambda: exporter.metrics()["trelm_library_loaded"] == 1)

    def test_requests_in_flight_share_one_sampling(self) -> None:
        exporter = self.start("--deadline", "1", before=SLOWLY)
        exporter.metrics()
        exporter.hanging(0).touch()
        with concurrent.futures.ThreadPoolExecutor(40) as clients:
            texts = set(clients.map(lambda _: exporter.get()[2], range(40)))
        self.assertLessEqual(len(texts), 2)  # the durations in them differ from one sampling to the next

    def test_clients_that_do_harm_leave_it_serving(self) -> None:
        _, most = resource.getrlimit(resource.RLIMIT_NOFILE)
        resource.setrlimit(resource.RLIMIT_NOFILE, (min(most, 4096), most))
        exporter = self.start()
        idle = [exporter.connect() for _ in range(1000)]
        for half, text in zip(idle, (b"GET /metrics HT", b"GET /metrics HTTP/1.1\r\nHost: x\r\nA", b"\0\xff" * 99, b"\r\n" * 99)):
            half.sendall(text)
        slow = exporter.connect()
        slow.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 1)
        slow.sendall(b"GET /metrics HTTP/1.1\r\nHost: x\r\n\r\n")
        gone = exporter.connect()
        gone.sendall(b"GET /metrics HTTP/1.1\r\nHost: x\r\n\r\n")
        gone.close()
        self.assertEqual(exporter.get()[0], 200)
        self.assertEqual(exporter.get(X_Long="x" * 100_000)[0], 431)
        self.assertEqual(exporter.get("/" + "x" * 100_000)[0], 414)
        self.assertEqual(exporter.get()[0], 200)
        for connection in [*idle, slow]:
            connection.close()

    @unittest.skipIf("TRELM_SANITIZED" in os.environ, "a sanitizer keeps what is freed for a while")
    def test_memory_is_flat(self) -> None:
        exporter = self.start("--luns", "--reload", "0.5")

        def resident() -> int:
            processes = subprocess.run(["ps", "-o", "rss=,comm=", "-s", str(exporter.process.pid)], stdout=subprocess.PIPE, check=True)
            lines = [line.split() for line in processes.stdout.decode().splitlines()]
            return next(int(size) for size, name in lines if name == "trelmctl")

        def scrape(count: int) -> int:
            for _ in range(count):
                self.assertEqual(exporter.get()[0], 200)
            return resident()

        first = scrape(REQUESTS // 4)
        last = scrape(REQUESTS)
        print(f"memory: {first} KiB after {REQUESTS // 4} scrapes, {last} KiB after {REQUESTS + REQUESTS // 4}")
        self.assertLess(last - first, 1024)

    def test_tls_and_users_of_a_web_configuration(self) -> None:
        temporary = tempfile.TemporaryDirectory(dir=BUILD)
        self.addCleanup(temporary.cleanup)
        directory = Path(temporary.name)
        make = "openssl req -x509 -newkey rsa:2048 -nodes -days 2 -subj /CN=localhost -addext subjectAltName=DNS:localhost"
        subprocess.run([*make.split(), "-keyout", directory / "key", "-out", directory / "cert"], check=True, stderr=subprocess.DEVNULL)
        hashed = "$2y$08$fleetofsimulatedhosts.tznekgrdOc58WfDqboajBt6rbBU8C1u"  # of "open sesame"
        config = directory / "web.yml"
        config.write_text(
            f"tls_server_config:\n  cert_file: cert\n  key_file: key\n  min_version: TLS13\n"
            f"http_server_config:\n  headers:\n    X-Frame-Options: deny\nbasic_auth_users:\n  scraper: {hashed}\n"
        )
        exporter = self.start("--web-config", str(config))
        tls = ssl.create_default_context(cafile=str(directory / "cert"))

        def status(user: str, password: str) -> int:
            credentials = base64.b64encode(f"{user}:{password}".encode()).decode()
            return exporter.get(tls=tls, Authorization=f"Basic {credentials}")[0]

        status_without, headers, _ = exporter.get(tls=tls)
        self.assertEqual((status_without, headers["X-Frame-Options"]), (401, "deny"))
        self.assertIn("Basic", headers["WWW-Authenticate"])
        for user, password, expected in (("scraper", "wrong", 401), ("nobody", "open sesame", 401), ("scraper", "open sesame", 200)) * 2:
            self.assertEqual(status(user, password), expected, (user, password))
        with concurrent.futures.ThreadPoolExecutor(100) as clients:
            guesses = list(clients.map(lambda n: status("scraper", f"guess {n}"), range(100)))
        self.assertEqual(set(guesses), {401})
        old = ssl.create_default_context(cafile=str(directory / "cert"))
        old.maximum_version = ssl.TLSVersion.TLSv1_2
        with self.assertRaises(ssl.SSLError):
            exporter.get(tls=old)

        for text in ("tls_server_config:\n  client_ca_file: cert\n", 'http_server_config: {headers: {"a b": c}}', "basic_auth_users:\n  scraper: plain\n", "basic_auth_users: [\n"):
            config.write_text(text)
            refused = Exporter(small_host(), "--web-config", str(config))
            self.addCleanup(refused.end)
            self.assertEqual(refused.process.wait(PATIENCE), 1, text)
            self.assertIn("web.yml", refused.errors())


if __name__ == "__main__":
    unittest.main()
