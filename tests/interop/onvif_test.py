"""inet-camera as an ONVIF device: what a client library finds, who may call, and how it is found."""
import base64
import hashlib
import json
import os
import re
import subprocess
import time
import unittest
import urllib.error
import urllib.request
from xml.parsers import expat
from xml.sax.saxutils import escape

from peers import ROOT, Camera, CameraCase, ffmpeg, free_group, has_namespaces, join_hosts, run, wait_for_link
from player import Player
from viewer import VIEWER

DEVICE, MEDIA = ("http://www.onvif.org/ver10/%s/wsdl" % each for each in ("device", "media"))
NPM = os.environ.get("INET_NPM", f"{ROOT}/build/npm")
USER, PASSWORD = "admin", "se&cret"
PROBE = "<Envelope><Header><MessageID>1</MessageID></Header><Body><Probe/></Body></Envelope>"
HOSTILE = "<&\"'>${x}]]>"  # no stream behind it: nobody watches


def texts_of(document):
    """The text of each element and the value of each attribute, by its local name; as expat reads it, which knows
    namespaces."""
    found, path = {}, []
    parser = expat.ParserCreate("UTF-8", "|")

    def begin(name, attributes):
        path.append(name.split("|")[-1])
        found.setdefault(path[-1], []).append("")
        for key, value in attributes.items():
            found.setdefault("@" + key.split("|")[-1], []).append(value)

    def text(piece):
        found[path[-1]][-1] += piece
    parser.StartElementHandler, parser.CharacterDataHandler = begin, text
    parser.EndElementHandler = lambda name: path.pop()
    parser.Parse(document, True)
    return found


def token(password=PASSWORD, user=USER, age=0, nonce=None, kind="Digest", form="%Y-%m-%dT%H:%M:%S.25Z"):
    """A UsernameToken, `age` seconds old, laid out with blanks."""
    nonce = nonce or os.urandom(16)
    created = time.strftime(form, time.gmtime(time.time() - age))
    digest = base64.b64encode(hashlib.sha1(nonce + created.encode() + password.encode()).digest()).decode()
    return (f'<Security><UsernameToken><Username>{escape(user)}</Username><Password Type="x#Password{kind}">'
            f'{digest if kind == "Digest" else escape(password)}</Password>'
            f'<Nonce>\n {base64.b64encode(nonce).decode()}\n</Nonce><Created> {created} </Created>'
            '</UsernameToken></Security>')


def envelope(method, inner="", ns=MEDIA, header=""):
    return (f'<s:Envelope xmlns:s="http://www.w3.org/2003/05/soap-envelope"><s:Header>{header}</s:Header><s:Body>'
            f'<{method} xmlns="{ns}">{inner}</{method}></s:Body></s:Envelope>')


class DeviceCase(CameraCase):
    def ask(self, method, inner="", ns=MEDIA, header="", service="media", opener=urllib.request.build_opener()):
        """Status and texts of the answer to a call."""
        body = envelope(method, inner, ns, header).encode()
        request = urllib.request.Request(f"{self.camera.web}onvif/{service}_service", body,
                                         {"Content-Type": "application/soap+xml; charset=utf-8"})
        try:
            with opener.open(request, timeout=20) as answer:
                return answer.status, texts_of(answer.read())
        except urllib.error.HTTPError as refused:
            with refused:
                return refused.code, texts_of(refused.read()) if "xml" in refused.headers["Content-Type"] else {}

    def stream_uri(self, name, stream="RTP-Unicast", protocol="RTSP"):
        setup = f"<Stream>{stream}</Stream><Transport><Protocol>{protocol}</Protocol></Transport>"
        inner = f"<StreamSetup>{setup}</StreamSetup><ProfileToken>{name}</ProfileToken>"
        return self.ask("GetStreamUri", inner)[1]["Uri"][0]


class Device(DeviceCase):
    arguments = ("--http", "0", "--user", USER, "--password", PASSWORD, "--on-demand", "--threads", "2",
                 "--video", f"{ROOT}/apps/camera/clip/clip.h264", "--audio", f"{ROOT}/apps/camera/clip/clip.wav",
                 "--jpeg", f"{ROOT}/apps/camera/clip/clip_01.jpg", "--source", f"{HOSTILE}=rtsp://127.0.0.1:9/x")

    def test_a_client_library_finds_streams_that_play(self):
        port = re.search(r":(\d+)/", self.camera.web).group(1)
        told = json.loads(subprocess.run(
            ["node", os.path.join(os.path.dirname(__file__), "onvif_client.mjs"), port, USER, PASSWORD],
            env={**os.environ, "INET_NPM": NPM}, stdout=subprocess.PIPE, timeout=60, check=True).stdout)
        self.assertEqual(told["profiles"], [["live", "H264", 640, "G711"], ["jpeg", "JPEG", 640, None],
                                            [HOSTILE, "H264", 1920, None]])
        self.assertEqual(told["sources"], ["live", "jpeg", HOSTILE])
        self.assertEqual(told["sizes"], {"width": 640, "height": 360})
        self.assertEqual((told["model"], told["links"]), ("inet-camera", True))
        self.assertIn("onvif://www.onvif.org/name/inet-camera", told["scopes"])
        self.assertEqual(told["media"], f"{self.camera.web}onvif/media_service")
        self.assertEqual(told["snapshot"], f"{self.camera.web}jpeg.jpg")
        self.assertLess(told["skew"], 5000)
        self.assertIn("Action Failed", told["refused"])
        self.assertIn("Invalid Args", told["unknown"])
        for protocol, way in (("UDP", "udp"), ("RTSP", "tcp"), ("HTTP", "http")):
            url = told["uris"][protocol].replace("rtsp://", "rtsp://admin:se%26cret@")
            self.assertGreater(len(ffmpeg("-rtsp_transport", way, "-t", "0.5", "-i", url, "-map", "0:v", "-f",
                                          "framemd5", "-")), 300)

    def test_who_may_call(self):
        once = token(nonce=b"once")
        passwords = urllib.request.HTTPPasswordMgrWithDefaultRealm()
        passwords.add_password(None, self.camera.web, USER, PASSWORD)
        digest = urllib.request.build_opener(urllib.request.HTTPDigestAuthHandler(passwords))
        for status, header, more in (
                (401, "", {}), (200, token(), {}), (200, once, {}), (400, once, {}),
                (400, token(nonce=b"once", age=1), {}), (400, token("wrong"), {}), (400, token(user="other"), {}),
                (400, token(age=310), {}), (200, token(age=280), {}), (400, token(age=-310), {}),
                (200, token(age=-19800, form="%Y-%m-%dT%H:%M:%S+05:30"), {}),
                (400, token(form="%Y-%m-%dT%H:%M:%S+05:30"), {}), (200, token(form="%Y-%m-%dT%H:%M:%S"), {}),
                (400, token(kind="Text"), {}), (400, "<Security><UsernameToken/></Security>", {}),
                (200, "", {"opener": digest})):
            with self.subTest(header):
                got, texts = self.ask("GetProfiles", header=header, **more)
                self.assertEqual(got, status)
                self.assertEqual(texts.get("Value"), None if status == 200 else ["env:Sender", "ter:NotAuthorized"])
        for method in ("GetSystemDateAndTime", "GetCapabilities", "GetServices", "GetServiceCapabilities",
                       "GetHostname"):
            self.assertEqual(self.ask(method, ns=DEVICE, service="device")[0], 200)
        self.assertEqual(self.ask("GetServiceCapabilities")[1]["@MaximumNumberOfProfiles"], ["10"])

    def test_a_client_that_waits_for_the_challenge(self):
        body = ('<?xml version="1.0"?><SOAP-ENV:Envelope xmlns:SOAP-ENV="http://www.w3.org/2003/05/soap-envelope" '
                f'xmlns:a="http://www.w3.org/2005/08/addressing" xmlns:ns7="{MEDIA}"><SOAP-ENV:Header>'
                '<a:To SOAP-ENV:mustUnderstand="true">t</a:To></SOAP-ENV:Header><SOAP-ENV:Body><ns7:GetVideoSources/>'
                '</SOAP-ENV:Body></SOAP-ENV:Envelope>')
        kind = f'content-type: Application/SOAP+xml; charset="UTF-8"; action="{MEDIA}/GetVideoSources"'
        for manner in "expect: 100-continue", "transfer-encoding: chunked":
            printed = run("curl", "-sS", "--digest", "-u", f"{USER}:{PASSWORD}", "-d", body, "-H", manner, "-H", kind,
                          f"{self.camera.web}onvif/device_service")
            self.assertEqual(texts_of(printed)["@token"], ["live", "jpeg", HOSTILE])

    def test_each_answer_is_well_formed_and_says_what_is_asked(self):
        hostile = escape(HOSTILE)
        for status, method, ns, inner, texts in (
                (200, "GetCapabilities", DEVICE, "<Category>Media</Category>",
                 {"XAddr": [f"{self.camera.web}onvif/media_service"]}),
                (400, "GetCapabilities", DEVICE, "<Category>PTZ</Category>", {}),
                (200, "GetServices", DEVICE, "<IncludeCapability>true</IncludeCapability>",
                 {"Namespace": [DEVICE, MEDIA], "@MaxUsers": ["10"]}),
                (200, "GetProfile", MEDIA, f"<ProfileToken>{hostile}</ProfileToken>",
                 {"Profile": None, "@token": [HOSTILE] * 3, "@width": ["1920"]}),
                (400, "GetProfile", MEDIA, "", {"Value": ["env:Sender", "ter:InvalidArgVal"]}),
                (200, "GetVideoSourceConfigurations", MEDIA, "", {"@token": ["live", "jpeg", HOSTILE]}),
                (200, "GetVideoEncoderConfigurations", MEDIA, "", {"Encoding": ["H264", "JPEG", "H264"]}),
                (200, "GetVideoEncoderConfiguration", MEDIA, "<ConfigurationToken>jpeg</ConfigurationToken>",
                 {"Encoding": ["JPEG"]}),
                (200, "GetVideoEncoderConfigurationOptions", MEDIA, "", {"Width": ["640", "640", "1920"]}),
                (200, "GetMetadataConfigurations", MEDIA, "", {}),
                (200, "GetAudioSources", MEDIA, "", {"@token": ["live"], "Channels": ["1"]}),
                (200, "GetStreamUri", MEDIA, f"<ProfileToken>{hostile}</ProfileToken>",
                 {"Uri": [self.camera.url().replace("live", "%3C&%22'%3E$%7Bx%7D%5D%5D%3E")]}),
                (400, "GetStreamUri", MEDIA, "<StreamSetup><Stream>RTP-Multicast</Stream></StreamSetup>"
                 "<ProfileToken>live</ProfileToken>", {}),
                (400, "GetSnapshotUri", MEDIA, f"<ProfileToken>{hostile}</ProfileToken>", {}),
                (500, "SetHostname", DEVICE, "", {"Value": ["env:Receiver", "ter:Action"]}),
                (500, "GetServiceCapabilities", "http://www.onvif.org/ver20/ptz/wsdl", "", {}),
                (400, "GetProfiles", MEDIA, "<", {}), (400, "GetProfiles", MEDIA, "<a>" * 10000, {}),
                (400, "GetProfiles", MEDIA, "&x;", {}), (413, "GetProfiles", MEDIA, "x" * 1000000, {})):
            with self.subTest(method, inner=inner[:99]):
                header = "<MessageID>&amp;1</MessageID><To>t</To>" + token()
                got, found = self.ask(method, inner, ns, header)
                self.assertEqual(got, status)
                self.assertIn(found.get("MessageID"), (None, ["&1"]))
                for name, values in texts.items():
                    self.assertTrue(found[name] == values or values is None, (name, found[name]))


class Streams(DeviceCase):
    group, port = free_group().split(":")
    arguments = "--http", "0", "--multicast", f"{group}:{port}"

    def test_are_told_of_as_they_are(self):
        self.assertEqual(self.ask("GetVideoSources")[1]["Framerate"], ["25", "5"])
        self.assertEqual(self.ask("GetMetadataConfigurations")[1]["@token"], ["live"])
        self.assertEqual(self.stream_uri("live", "RTP-Multicast", "UDP"), self.camera.url())
        self.assertEqual(self.stream_uri("live", protocol="HTTP"), f"rtsp{self.camera.web[4:]}live")

    def test_analytics_arrive_as_whole_documents(self):
        player = self.enterContext(Player(self.stream_uri("live")))
        player.play(["application"])
        text, documents = b"", []
        while len(documents) < 10:
            channel, packet = player.packet()
            if channel == 0:
                text += packet[12:]
            if channel == 0 and packet[1] & 0x80:
                documents.append(texts_of(text))
                text = b""
        for each in documents:
            self.assertIn("Frame", each)

    def test_a_source_that_nobody_watches_is_described_by_the_last_that_was_known(self):
        with Camera("--http", "0", "--on-demand", "--source", f"far={self.camera.url()}") as other:
            far = type("Far", (DeviceCase,), {"camera": other})()
            self.assertEqual(far.ask("GetProfile", "<ProfileToken>far</ProfileToken>")[1]["Width"], ["1920"])
            ffmpeg("-t", "0.5", "-i", far.stream_uri("far"), "-f", "null", "-")
            found = far.ask("GetProfile", "<ProfileToken>far</ProfileToken>")[1]
            self.assertEqual((found["Width"], found["Encoding"]), (["640"], ["H264", "G711"]))


@unittest.skipUnless(has_namespaces(), "network namespaces need root")
class Discovery(CameraCase):
    arguments = ("--bind", "0.0.0.0", "--http", "0", "--user", USER, "--password", PASSWORD)

    @classmethod
    def start_camera(cls):
        join_hosts(cls, "10.81.9")
        return Camera(*cls.arguments, prefix=("ip", "netns", "exec", cls.near))

    def on(self, host, *command, **options):
        """Runs a command on a host. @return its status, and what it printed"""
        done = subprocess.run(["ip", "netns", "exec", host, *command], env={**os.environ, "INET_NPM": NPM}, timeout=60,
                              stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, **options)
        return done.returncode, done.stdout

    def probe(self, address, count, *bodies):
        """Sends texts to the group. @return the answers, when so many have come and then none for a second"""
        script = os.path.join(os.path.dirname(__file__), "probe.py")
        _, printed = self.on(self.far, "python3", script, address, str(count), input=json.dumps(bodies))
        return [texts_of(each) for each in json.loads(printed)]

    def test_clients_find_it_and_its_streams(self):
        status, printed = self.on(self.far, *VIEWER, "discover", "--json", "--timeout", "2")
        found = json.loads(printed)
        xaddr = f"{self.camera.web}onvif/device_service"
        self.assertEqual((status, found["name"], found["addresses"]), (0, "inet-camera", xaddr))
        script = ("const { Discovery } = require(process.env.INET_NPM + '/node_modules/onvif');"
                  "Discovery.probe({ timeout: 2000, resolve: false }, (e, all) => console.log(JSON.stringify(all)))")
        match = json.loads(self.on(self.far, "node", "-e", script)[1])[0]["probeMatches"]["probeMatch"]
        self.assertEqual((match["endpointReference"]["address"], match["XAddrs"]), (found["endpoint"], xaddr))
        device = re.search(r"//(.*?)/", xaddr).group(1)
        for address, word, status in ((device, PASSWORD, 0), (xaddr, PASSWORD, 0), (device, "wrong", 4)):
            got, printed = self.on(self.far, *VIEWER, "onvif", "--json", address, "--user", USER, "--password", word)
            self.assertEqual(got, status)
            self.assertEqual([json.loads(line)["address"] for line in printed.splitlines()],
                             [self.camera.url("live"), self.camera.url("jpeg")] * (status == 0))
        printed = self.on(self.near, "curl", "-sS", "-H", "Content-Type: text/xml", "-d",
                          envelope("GetNetworkInterfaces", ns=DEVICE, header=token()), xaddr)[1]
        self.assertEqual(texts_of(printed)["HwAddress"][0] + "\n",
                         self.on(self.near, "cat", "/sys/class/net/end/address")[1])
        self.assertEqual(self.on(self.near, *VIEWER, "discover", "--timeout", "1")[0], 7, "a host does not hear itself")

    def test_answers_the_probes_that_ask_for_it(self):
        base, strcmp = "onvif://www.onvif.org", "http://schemas.xmlsoap.org/ws/2005/04/discovery/strcmp0"
        cases = [(True, "", ""), (True, "<Types> x:Device\n</Types>", ""), (False, "<Types>x:Printer</Types>", ""),
                 (False, "<Types>dn:NetworkVideoTransmitter x:Printer</Types>", ""),
                 (True, "", f"<Scopes>ONVIF://WWW.onvif.org/type {base}/name/inet-camera/</Scopes>"),
                 (False, "", f"<Scopes>{base}/type {base}/nam</Scopes>"),
                 (True, "", f'<Scopes MatchBy="{strcmp}">{base}/name/inet-camera</Scopes>'),
                 (False, "", f'<Scopes MatchBy="{strcmp}">{base}/name</Scopes>'),
                 (False, "", f'<Scopes MatchBy="x/ldap">{base}/name</Scopes>')]
        bodies = [f'<Envelope><Header><MessageID>&lt;{number}&gt;</MessageID></Header><Body><Probe>{types}{scopes}'
                  '</Probe></Body></Envelope>' for number, (_, types, scopes) in enumerate(cases)]
        rest = ["x" * 65507, "<a>" * 1000, bodies[0].replace("Probe", "Other"), bodies[0] + " " * 8192,
                bodies[0].replace("MessageID", "Other")]
        answers = self.probe("10.81.9.2", 4, *bodies, *rest)
        self.assertEqual(sorted(each["RelatesTo"][0] for each in answers),
                         [f"<{number}>" for number, case in enumerate(cases) if case[0]])
        self.assertEqual(len({each["MessageID"][0] for each in answers}), 4)

    def test_a_host_is_sent_ten_answers_a_second(self):
        self.on(self.far, "ip", "address", "add", "10.81.9.3/24", "dev", "end")
        self.assertEqual(len(self.probe("10.81.9.3", 10, *[PROBE] * 40)), 10)

    def test_tells_and_answers_on_a_link_that_comes_up(self):
        run("ip", "link", "add", "side", "netns", self.near, "type", "veth", "peer", "name", "side", "netns", self.far)
        self.addCleanup(run, "ip", "-n", self.near, "link", "del", "side")
        for host, command in ((self.far, "address add 10.81.10.2/24 dev side"), (self.far, "link set side up"),
                              (self.near, "link set side up")):
            run("ip", "-n", host, *command.split())
        wait_for_link("side", self.near, self.far)
        script = os.path.join(os.path.dirname(__file__), "probe.py")
        with subprocess.Popen(["ip", "netns", "exec", self.far, "python3", script, "10.81.10.2"],
                              stdout=subprocess.PIPE, text=True) as listener:
            self.assertEqual(listener.stdout.readline(), "ready\n")
            run("ip", "-n", self.near, *"address add 10.81.10.1/24 dev side".split())
            hello = listener.stdout.read()
        self.assertIn("discovery/Hello", hello)
        self.assertEqual(re.findall(r"10\.81\.\d+\.1", hello), ["10.81.9.1", "10.81.10.1"])
        answers = self.probe("10.81.10.2", 1, PROBE)
        self.assertEqual([re.findall("//(.*):", each["XAddrs"][0]) for each in answers], [["10.81.10.1"]])
