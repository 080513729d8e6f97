"""Writes the configuration of a private host: loopback only, ports of its own."""

import pathlib
import re
import socket
from dataclasses import dataclass

# The modules that the scenarios use. Those that an installation lacks are left out.
MODULES = ("mod_logfile", "mod_event_socket", "mod_commands", "mod_dptools", "mod_dialplan_xml",
           "mod_loopback", "mod_sndfile", "mod_tone_stream", "mod_spandsp", "mod_opus", "mod_h26x",
           "mod_sofia")

PASSWORD = "real-host-suite"

SAMPLES = pathlib.Path(__file__).resolve().parents[3] / "examples" / "dialplan"


@dataclass(frozen=True)
class Ports:
    event_socket: int
    sip: int
    sip_callid: int  # Of the profile that uses the Call-ID as the UUID.
    rtp_first: int
    rtp_last: int
    media_nodes: tuple  # For the dialplan sample with several media nodes.


def free_port(kind: int) -> int:
    with socket.socket(socket.AF_INET, kind) as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def choose_ports() -> Ports:
    # Below the range from which the system chooses ports for unbound sockets.
    rtp = 20000 + free_port(socket.SOCK_DGRAM) % 40 * 300
    return Ports(free_port(socket.SOCK_STREAM), free_port(socket.SOCK_DGRAM),
                 free_port(socket.SOCK_DGRAM), rtp, rtp + 298,
                 (free_port(socket.SOCK_DGRAM), free_port(socket.SOCK_DGRAM)))


def params(**values) -> str:
    return "".join(f'<param name="{name.replace("_", "-")}" value="{value}"/>'
                   for name, value in values.items())


def configuration(name: str, content: str) -> str:
    return f'<configuration name="{name}.conf" description="{name}">{content}</configuration>\n'


def settings(name: str, **values) -> str:
    return configuration(name, f"<settings>{params(**values)}</settings>")


def modules_section(installation) -> str:
    present = [name for name in MODULES if installation.has_module(name)]
    loads = "".join(f'<load module="{name}"/>' for name in present)
    return configuration("modules", f"<modules>{loads}</modules>")


def sip_profile(name: str, port: int, **more) -> str:
    values = dict(context="scenarios", dialplan="XML", sip_ip="127.0.0.1", rtp_ip="127.0.0.1",
                  sip_port=port, inbound_codec_negotiation="generous", rtp_timer_name="soft",
                  codec_prefs="PCMU,PCMA,G722,OPUS,OPUS@16000h,L16@48000h,L16@16000h,VP8,H264",
                  auth_calls="false", manage_presence="false", **more)
    return f'<profile name="{name}"><settings>{params(**values)}</settings></profile>'


def sofia_section(ports: Ports) -> str:
    return configuration(
        "sofia",
        f"<global_settings>{params(log_level=0, auto_restart='false')}</global_settings>"
        f"<profiles>{sip_profile('suite', ports.sip)}"
        f"{sip_profile('callid', ports.sip_callid, inbound_use_callid_as_uuid='true')}</profiles>")


def logfile_section() -> str:
    levels = "console,debug,info,notice,warning,err,crit,alert"
    return configuration(
        "logfile",
        '<settings/><profiles><profile name="default">'
        f"<settings>{params(rollover=0, uuid='true')}</settings>"
        f'<mappings><map name="all" value="{levels}"/></mappings></profile></profiles>')


def extension(name: str, *actions) -> str:
    steps = "".join(f'<action application="{action.partition(" ")[0]}" '
                    f'data="{action.partition(" ")[2]}"/>' for action in actions)
    return (f'<extension name="{name}"><condition field="destination_number" '
            f'expression="^{name}$">{steps}</condition></extension>\n')


def sample_contexts(ports: Ports) -> str:
    """The dialplan samples, each in a context of its name, followed by the destinations of their
    calls. Addresses are replaced, so that nothing is sent to other machines."""
    rest = ('<extension name="rest"><condition><action application="answer"/>'
            '<action application="playback" data="tone_stream://%(10000,0,440)"/>'
            '</condition></extension>\n')
    called = f"{{absolute_codec_string=PCMU}}sofia/suite/far@127.0.0.1:{ports.sip}"
    contexts = ""
    for sample in sorted(SAMPLES.glob("*.xml")):
        extensions = re.sub(r"</?include>", "", sample.read_text())
        extensions = extensions.replace("user/$1@${domain_name}", called)
        for address, port in zip(("192.0.2.11:5090", "192.0.2.12:5090"), ports.media_nodes):
            extensions = extensions.replace(address, f"127.0.0.1:{port}")
        contexts += f'<context name="{sample.stem}">\n{extensions}{rest}</context>\n'
    return contexts


def write_host_files(folder: pathlib.Path, installation, ports: Ports, dialplan: str) -> None:
    sections = (
        modules_section(installation)
        + settings("switch", loglevel="debug", max_sessions=1000, sessions_per_second=500,
                   rtp_start_port=ports.rtp_first, rtp_end_port=ports.rtp_last)
        + settings("event_socket", nat_map="false", listen_ip="127.0.0.1",
                   listen_port=ports.event_socket, password=PASSWORD)
        + sofia_section(ports) + logfile_section()
        + settings("loopback") + settings("opus", use_vbr=1, complexity=5)
        + configuration("timezones", '<timezones><zone name="UTC" value="UTC0"/></timezones>'))
    folder.mkdir(parents=True)
    (folder / "freeswitch.xml").write_text(
        '<?xml version="1.0"?>\n<document type="freeswitch/xml">\n'
        f'<section name="configuration">\n{sections}</section>\n'
        f'<section name="dialplan"><context name="scenarios">\n{dialplan}</context>\n'
        f'{sample_contexts(ports)}</section>\n'
        '<section name="directory"><domain name="127.0.0.1"/></section>\n</document>\n')
