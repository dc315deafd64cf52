"""A SIP server and a phone of Debian."""
import glob
import os
import socket
import subprocess
import tempfile

SERVER = """#!KAMAILIO
debug=0
log_stderror=yes
children=1
tcp_children=1
listen=udp:127.0.0.1:{port}
listen=tcp:127.0.0.1:{port}
{modules}
request_route {{
    if (is_method("REGISTER")) {{
        if (!pv_www_authenticate("$td", "secret", "0")) {{ www_challenge("$td", "0"); exit; }}
        save("location");
        exit;
    }}
    if (is_method("INVITE") && !has_totag() && !pv_proxy_authenticate("$fd", "secret", "0")) {{
        proxy_challenge("$fd", "0");
        exit;
    }}
    if (!lookup("location")) {{ sl_send_reply("404", "Not Found"); exit; }}
    t_relay();
}}
"""
MODULES = "kex", "tm", "tmx", "sl", "pv", "textops", "siputils", "usrloc", "registrar", "auth"
PHONE = """
sip_listen 127.0.0.1:0
audio_player aufile,{folder}/heard.wav
audio_source aufile,{sound}
audio_alert aufile,/dev/null
video_source fakevideo,nil
video_display fakevideo,nil
video_size 160x96
module_path /usr/lib/baresip/modules
snd_path {folder}
module stdio.so
module g711.so
module aufile.so
module sndfile.so
module avcodec.so
module fakevideo.so
module_tmp account.so
module_app menu.so
"""


def free_port():
    """A port of the loopback that nobody uses, over UDP and over TCP."""
    while True:
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as first, socket.socket() as second:
            first.bind(("127.0.0.1", 0))
            try:
                second.bind(first.getsockname())
            except OSError:
                continue
            return first.getsockname()[1]


class Program:
    """Runs in a folder of its own, and ends with the block."""

    def __init__(self, *command, **options):
        self.process = subprocess.Popen(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                                        errors="replace", cwd=self.folder.name, **options)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.process.kill()
        self.process.communicate()
        self.folder.cleanup()


class Kamailio(Program):
    """Everybody's password is "secret"."""

    def __init__(self):
        self.folder = tempfile.TemporaryDirectory()
        self.port = free_port()
        with open(f"{self.folder.name}/config", "w") as config:
            modules = "\n".join(f'loadmodule "{name}.so"' for name in MODULES)
            config.write(SERVER.format(port=self.port, modules=modules))
        super().__init__("kamailio", "-f", "config", "-DD", "-E", "-m", "32", "-M", "4", "-Y", self.folder.name,
                         start_new_session=True)

    def __exit__(self, *error):
        os.killpg(self.process.pid, 9)
        super().__exit__(*error)


class Baresip(Program):
    """A phone with a camera of its own. It keeps the sound that it hears."""

    def __init__(self, user, server, sound):
        self.folder = tempfile.TemporaryDirectory()
        files = {"config": PHONE.format(folder=self.folder.name, sound=sound), "contacts": "",
                 "accounts": f"<sip:{user}@{server}>;auth_pass=secret;audio_codecs=PCMU/8000/1;video_codecs=H264\n"}
        for name, text in files.items():
            with open(f"{self.folder.name}/{name}", "w") as file:
                file.write(text)
        super().__init__("stdbuf", "-o0", "baresip", "-f", self.folder.name, stdin=subprocess.PIPE)
        self.printed = ""

    def wait_for(self, text):
        while text not in self.printed:
            line = self.process.stdout.readline()
            assert line, self.printed
            self.printed += line

    def press(self, keys):
        self.process.stdin.write(keys)
        self.process.stdin.flush()

    def heard(self):
        return glob.glob(f"{self.folder.name}/dump-*-dec.wav")[0]
