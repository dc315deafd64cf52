"""inet-camera as an ONVIF device: what a client library finds, and who may call."""
import base64
import hashlib
import json
import os
import re
import subprocess
import time
import urllib.error
import urllib.request
from xml.parsers import expat
from xml.sax.saxutils import escape

from peers import ROOT, CameraCase, ffmpeg

DEVICE, MEDIA = ("http://www.onvif.org/ver10/%s/wsdl" % each for each in ("device", "media"))
NPM = os.environ.get("INET_NPM", f"{ROOT}/build/npm")
USER, PASSWORD = "admin", "se&cret"
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


def token(password=PASSWORD, user=USER, age=0, nonce=None, kind="Digest"):
    """A UsernameToken, `age` seconds old."""
    nonce = nonce or os.urandom(16)
    created = time.strftime("%Y-%m-%dT%H:%M:%S.25Z", time.gmtime(time.time() - age))
    digest = base64.b64encode(hashlib.sha1(nonce + created.encode() + password.encode()).digest()).decode()
    return (f'<Security><UsernameToken><Username>{escape(user)}</Username><Password Type="x#Password{kind}">'
            f'{digest if kind == "Digest" else escape(password)}</Password>'
            f'<Nonce>{base64.b64encode(nonce).decode()}</Nonce><Created>{created}</Created></UsernameToken></Security>')


class Device(CameraCase):
    arguments = ("--http", "0", "--user", USER, "--password", PASSWORD, "--on-demand",
                 "--video", f"{ROOT}/apps/camera/clip/clip.h264", "--audio", f"{ROOT}/apps/camera/clip/clip.wav",
                 "--jpeg", f"{ROOT}/apps/camera/clip/clip_01.jpg", "--source", f"{HOSTILE}=rtsp://127.0.0.1:9/x")

    def ask(self, method, inner="", ns=MEDIA, header="", service="media", opener=urllib.request.build_opener()):
        """Status and texts of the answer to a call."""
        body = (f'<s:Envelope xmlns:s="http://www.w3.org/2003/05/soap-envelope"><s:Header>{header}</s:Header><s:Body>'
                f'<{method} xmlns="{ns}">{inner}</{method}></s:Body></s:Envelope>')
        request = urllib.request.Request(f"{self.camera.web}onvif/{service}_service", body.encode(),
                                         {"Content-Type": "application/soap+xml; charset=utf-8"})
        try:
            with opener.open(request, timeout=20) as answer:
                return answer.status, texts_of(answer.read())
        except urllib.error.HTTPError as refused:
            with refused:
                return refused.code, texts_of(refused.read())

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
                (400, "GetProfiles", MEDIA, "<", {}), (400, "GetProfiles", MEDIA, "<a>" * 10000, {})):
            with self.subTest(method, inner=inner[:99]):
                header = "<MessageID>&amp;1</MessageID><To>t</To>" + token()
                got, found = self.ask(method, inner, ns, header)
                self.assertEqual(got, status)
                self.assertIn(found.get("MessageID"), (None, ["&1"]))
                for name, values in texts.items():
                    self.assertTrue(found[name] == values or values is None, (name, found[name]))
