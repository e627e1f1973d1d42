"""A manager of services for python3-dbusmock, which behaves as the names of its units say."""

import os

import dbus
import dbusmock
from gi.repository import GLib

BUS_NAME = "org.freedesktop.systemd1"
MAIN_OBJ = "/org/freedesktop/systemd1"
MAIN_IFACE = "org.freedesktop.systemd1.Manager"
SYSTEM_BUS = True

UNIT = "org.freedesktop.systemd1.Unit"
SERVICE = "org.freedesktop.systemd1.Service"
INVOCATION = bytes(range(1, 17))

# The job that starts the unit: its result, and what the unit is then.
SUCCESS = {"ActiveState": "active", "SubState": "running"}
FAILED = {"ActiveState": "failed", "SubState": "failed"}
STARTS = {
    "quick": ("done", SUCCESS, {"MainPID": dbus.UInt32(4711)}),
    "resting": ("done", SUCCESS, {}),
    "slow": ("done", SUCCESS, {}),
    "oneshot": ("done", {"ActiveState": "inactive", "SubState": "dead"}, {}),
    "skipped": ("skipped", {"ActiveState": "inactive", "SubState": "dead"}, {}),
    "exits": ("failed", FAILED,
              {"Result": "exit-code", "ExecMainCode": dbus.Int32(1), "ExecMainStatus": dbus.Int32(3)}),
    "nameless": ("failed", FAILED, {"Result": "resources"}),
    "nameless-timed": ("failed", FAILED, {"Result": "resources"}),
    "killed": ("failed", FAILED, {"Result": "signal", "ExecMainCode": dbus.Int32(2), "ExecMainStatus": dbus.Int32(9)}),
    "dumped": ("failed", FAILED,
               {"Result": "core-dump", "ExecMainCode": dbus.Int32(3), "ExecMainStatus": dbus.Int32(11)}),
    "before": ("failed", FAILED, {"Result": "exit-code"}),  # a process before the main one
    "late": ("done", FAILED, {"Result": "exit-code", "ExecMainCode": dbus.Int32(1), "ExecMainStatus": dbus.Int32(1)}),
    "again": ("failed", {"ActiveState": "activating", "SubState": "auto-restart"},
              {"Result": "exit-code", "ExecMainCode": dbus.Int32(1), "ExecMainStatus": dbus.Int32(203)}),
    "limit": ("failed", FAILED, {"Result": "start-limit-hit"}),
    "times-out": ("timeout", FAILED, {"Result": "timeout"}),
    "dependent": ("dependency", {"ActiveState": "inactive", "SubState": "dead"}, {}),
    "canceled": ("canceled", {"ActiveState": "inactive", "SubState": "dead"}, {"Result": "exit-code"}),
    "stuck": (None, {"ActiveState": "activating", "SubState": "start"}, {}),
    "flood": ("done", SUCCESS, {}),
    "early": ("done", SUCCESS, {}),
    "odd-signal": ("done", SUCCESS, {}),
    "foreign": ("done", SUCCESS, {}),
    "leaves": (None, SUCCESS, {}),
    "dies": (None, SUCCESS, {}),
    "silent": (None, SUCCESS, {}),
    "user": ("done", SUCCESS, {}),
    "instance@one": ("done", SUCCESS, {}),
    "odd\\x2dname:a_b.c": ("done", SUCCESS, {}),
    "no-id": ("done", SUCCESS, {}),
    "wrong-types": ("done", SUCCESS, {}),
    "wrong-some": ("done", SUCCESS, {}),
    "long": ("done", SUCCESS, {}),
}
REFUSALS = {
    "denied": ("org.freedesktop.DBus.Error.AccessDenied", "Permission denied"),
    "asks": ("org.freedesktop.DBus.Error.InteractiveAuthorizationRequired", "Interactive authentication required."),
    "only-by-dependency": ("org.freedesktop.systemd1.OnlyByDependency", "Operation refused, it may be requested by "
                           "dependency only."),
    "control": ("org.freedesktop.DBus.Error.Failed", "a\x1b[31m\ntext " + "\u00e4" * 5000),
    "wordless": ("org.example.Strange", ""),
    "masked-meanwhile": ("org.freedesktop.systemd1.UnitMasked", "Unit is masked."),
    "gone-meanwhile": ("org.freedesktop.systemd1.NoSuchUnit", "Unit not loaded."),
}
LOAD_STATES = {
    "masked": ("masked", "org.freedesktop.systemd1.UnitMasked", "Unit masked.service is masked."),
    "broken": ("bad-setting", "org.freedesktop.systemd1.BadUnitSetting", "Unit broken.service has a bad unit file "
               "setting."),
    "unreadable": ("error", "org.freedesktop.DBus.Error.AccessDenied", ""),
    "deleted": ("not-found", "org.freedesktop.systemd1.NoSuchUnit", "Unit deleted.service not found."),
}
OTHERS = ["cups.socket"]

s_state = {"jobs": 0, "keep": []}


def path_of(name):
    return MAIN_OBJ + "/unit/" + "".join(c if c.isalnum() and c.isascii() else f"_{ord(c):02x}" for c in name)


def stem(name):
    return name[:-len(".service")] if name.endswith(".service") else name


def known(name):
    return stem(name) in {**STARTS, **REFUSALS, **LOAD_STATES} or name in OTHERS


def props(name):
    return dbusmock.get_object(path_of(name)).props


def change(name, unit, service):
    props(name)[UNIT].update(unit)
    if SERVICE in props(name):
        props(name)[SERVICE].update(service)


def make(mock, name):
    load = LOAD_STATES.get(stem(name), ("loaded" if known(name) else "not-found", "", ""))
    unit = {
        "Id": name, "Names": dbus.Array([name], signature="s"), "Description": f"The unit {stem(name)}",
        "LoadState": load[0], "LoadError": dbus.Struct(load[1:], signature="ss"),
        "ActiveState": "active" if name == "deleted.service" else "inactive", "SubState": "dead",
        "InvocationID": dbus.Array(INVOCATION, signature="y"),
    }
    if stem(name) == "no-id":
        del unit["Id"]
    if stem(name) == "nameless-timed":
        unit["InactiveExitTimestamp"] = dbus.UInt64(1_700_000_000_000_002)
    if stem(name) in ("nameless", "nameless-timed", "no-id"):
        unit["InvocationID"] = dbus.Array([] if stem(name) == "no-id" else bytes(16), signature="y")
    if stem(name) == "wrong-types":
        unit = {key: dbus.Int32(7) for key in unit}
    if stem(name) == "wrong-some":
        unit.update({"Id": dbus.UInt64(1), "LoadError": "text", "InvocationID": dbus.Array(b"abc", signature="y")})
    if stem(name) == "long":
        unit["Description"] = "\u20ac" * 100_000
    mock.AddObject(path_of(name), UNIT, unit, [])
    if name.endswith(".service"):
        service = {"Result": "success", "ExecMainCode": dbus.Int32(0), "ExecMainStatus": dbus.Int32(0),
                   "MainPID": dbus.UInt32(0)}
        if stem(name) == "wrong-some":
            service = {"Result": dbus.Array([], signature="s"), "ExecMainCode": "exited", "MainPID": dbus.Int64(-1)}
        dbusmock.get_object(path_of(name)).AddProperties(SERVICE, service)


def load(mock, _parameters):
    mock.AddMethods(MAIN_IFACE, [("Subscribe", "", "", "")])


def removed(mock, number, job, name, result, signature="uoss"):
    mock.EmitSignal(MAIN_IFACE, "JobRemoved", signature,
                    [dbus.UInt32(number), dbus.ObjectPath(job), name, result][:len(signature)])


def forge(job, name, destination):
    """Another process of the bus says that the job has failed, to everybody and to the client alone."""
    address = os.environ["DBUS_SYSTEM_BUS_ADDRESS"]
    stranger = dbus.bus.BusConnection(address)
    s_state["keep"].append(stranger)
    for to in None, destination:
        signal = dbus.lowlevel.SignalMessage(MAIN_OBJ, MAIN_IFACE, "JobRemoved")
        signal.append(dbus.UInt32(1), dbus.ObjectPath(job), name, "failed", signature="uoss")
        if to:
            signal.set_destination(to)
        stranger.send_message(signal)
    stranger.flush()


@dbus.service.method(MAIN_IFACE, in_signature="s", out_signature="o")
def LoadUnit(self, name):
    if name == "no-answer-to-load.service":
        raise dbus.exceptions.DBusException("the unit is bad", name="org.freedesktop.systemd1.LoadFailed")
    if path_of(name) not in dbusmock.mockobject.objects:
        make(self, name)
    return dbus.ObjectPath(path_of(name))


@dbus.service.method(MAIN_IFACE, in_signature="s", out_signature="s")
def GetUnitFileState(self, name):
    if name == "instance@.service":
        return "static"
    if name == "masked@.service":
        return "masked"
    raise dbus.exceptions.DBusException("No such file or directory",
                                        name="org.freedesktop.DBus.Error.FileNotFound")


def run_job(self, name, outcome, sender, reply):
    s_state["jobs"] += 1
    number = s_state["jobs"]
    job = f"{MAIN_OBJ}/job/{number}"
    result, unit, service = outcome
    kind = stem(name)

    def end():
        change(name, unit, service)
        if result is not None:
            removed(self, number, job, name, result)
        return False

    if kind == "silent":
        s_state["keep"].append(reply)
        return
    if kind == "dies":
        os._exit(0)
    if kind == "early":
        end()
        reply(dbus.ObjectPath(job))
        return
    reply(dbus.ObjectPath(job))
    if kind == "leaves":
        GLib.idle_add(lambda: bool(self.connection.release_name(BUS_NAME)) and False)
        return
    if kind == "flood":
        for i in range(3000):
            removed(self, i, f"{MAIN_OBJ}/job/x{i}", name, "failed")
    if kind == "odd-signal":
        removed(self, number, job, name, "done", "uo")
        self.EmitSignal(MAIN_IFACE, "JobRemoved", "ss", ["no", "job"])
        removed(self, number, job, name, "")
    if kind == "foreign":
        forge(job, name, sender)
    GLib.timeout_add(300 if kind in ("slow", "foreign") else 0, end)


@dbus.service.method(MAIN_IFACE, in_signature="ss", out_signature="o", async_callbacks=("reply", "fail"),
                     sender_keyword="sender")
def StartUnit(self, name, mode, reply, fail, sender=None):
    assert mode == "replace"
    if stem(name) in REFUSALS:
        error, text = REFUSALS[stem(name)]
        fail(dbus.exceptions.DBusException(text, name=error))
        return
    run_job(self, name, STARTS.get(stem(name), ("done", SUCCESS, {})), sender, reply)


@dbus.service.method(MAIN_IFACE, in_signature="ss", out_signature="o", async_callbacks=("reply", "fail"),
                     sender_keyword="sender")
def StopUnit(self, name, mode, reply, fail, sender=None):
    assert mode == "replace"
    if stem(name) in REFUSALS:
        error, text = REFUSALS[stem(name)]
        fail(dbus.exceptions.DBusException(text, name=error))
        return
    state = {"ActiveState": "inactive", "SubState": "dead"}
    if stem(name) == "killed":
        state = FAILED
    run_job(self, name, ("done", state, {"MainPID": dbus.UInt32(0)}),
            sender, reply)
