"""A second process's side of kap-linkd's control socket, out of what a test tells it: for answers that the real one does
not give (late, broken, of another version, refusals), and for moments that it gives only by chance."""

import json
import os
import socket
import threading

AT_US = 1_795_000_000_000_000


def link(name, **other):
    facts = {
        "name": name, "port": "IDL_A1", "vlan": 100, "far": "02:00:00:00:00:02", "near_mp": 1, "app_links": [],
        "rtt": {"batch": 5, "interval": 1, "frame_bytes": 64}, "source": "runtime", "file": "",
        "state": "enabled", "reason": "", "since_us": AT_US,
        "flaps_today": 0, "link_ref": 1, "near_mac": "02:00:00:00:00:01",
        "rtt_us": {"min": 40.12, "avg": 51.5, "max": 60.33}, "results": 10, "lost": 0, "next_try_us": 0,
    }
    return {**facts, **other}


def change(number, name="to-north", **other):
    facts = {
        "id": number, "at_us": AT_US + number * 1_000_000, "link": name, "port": "IDL_A1", "vlan": 100,
        "far": "02:00:00:00:00:02", "from": "enabled", "to": "disabled", "reason": "down", "lasted_us": 5_000_000,
        "known": {},
    }
    return {**facts, **other}


class Lines:
    """Listens at a path until it is stopped, and can be started again: what it knows stays."""

    def __init__(self, path):
        self.path = path
        self.links = []
        self.changes = []
        self.samples = []
        self.refusal = None  # (code, text) for every request
        self.speak = None  # bytes in place of every answer; b"" for none
        self.asked = []  # every request
        self.lock = threading.Lock()
        self.start()

    def start(self):
        if os.path.exists(self.path):
            os.unlink(self.path)
        self.followers = []
        self.connections = []
        self.listening = socket.socket(socket.AF_UNIX)
        self.listening.bind(self.path)
        self.listening.listen()
        threading.Thread(target=self._accept, args=(self.listening,), daemon=True).start()

    def stop(self):
        with self.lock:
            self.listening.shutdown(socket.SHUT_RDWR)
            self.listening.close()
            for one in self.connections:
                try:
                    one.shutdown(socket.SHUT_RDWR)
                except OSError:
                    pass
                one.close()
        os.unlink(self.path)

    def tell(self, said):
        """A change happens: it is kept, and who follows hears of it."""
        with self.lock:
            self.changes.append(said)
            for one in self.links:
                if one["name"] == said["link"]:
                    one.update(state=said["to"], reason=said["reason"], since_us=said["at_us"])
            for connection, number in self.followers:
                try:
                    self._send(connection, {"v": 1, "id": number, "event": said})
                except OSError:
                    pass

    @staticmethod
    def _send(connection, line):
        connection.sendall((json.dumps(line) + "\n").encode())

    def _accept(self, listening):
        while True:
            try:
                connection, _ = listening.accept()
            except OSError:
                return
            with self.lock:
                self.connections.append(connection)
            threading.Thread(target=self._serve, args=(connection,), daemon=True).start()

    def _serve(self, connection):
        try:
            for line in connection.makefile("rb"):
                request = json.loads(line)
                with self.lock:
                    self.asked.append(request)
                    self._answer(connection, request)
        except (OSError, ValueError):
            pass

    def _answer(self, connection, request):
        if self.speak is not None:
            connection.sendall(self.speak)
            return
        if self.refusal:
            code, text = self.refusal
            self._send(connection, {"v": 1, "id": request["id"], "ok": False, "error": {"code": code, "text": text}})
            return
        answer = {"v": 1, "id": request["id"], "ok": True, **self._result(request)}
        self._send(connection, answer)
        if request["op"] == "events" and request.get("follow"):
            self.followers.append((connection, request["id"]))

    def _result(self, request):
        op = request["op"]
        if op == "links":
            wanted = request.get("members")
            return {"links": [{name: value for name, value in one.items() if wanted is None or name in wanted}
                              for one in self.links]}
        if op == "link":
            return {"link": next(one for one in self.links if one["name"] == request["name"])}
        if op == "status":
            return {"newest_event": max((one["id"] for one in self.changes), default=0), "missing": ""}
        if op == "events":
            from_us = request.get("since_us", 0)
            first = next((one["id"] for one in self.changes if one["at_us"] >= from_us), 1 << 62)
            past = [one for one in self.changes
                    if request.get("since", 0) < one["id"] < request.get("before", 1 << 62) and one["id"] >= first
                    and request.get("link", one["link"]) == one["link"]]
            most = min(request.get("limit", 10000), request.get("newest", 10000))
            told = past[max(len(past) - most, 0):] if "newest" in request else past[:most]
            return {"events": told, "more": len(told) < len(past)}
        if op == "history":
            past = [one for one in self.changes if request["from_us"] <= one["at_us"] <= request["to_us"]]
            return {"events": past[-min(request["limit"], 10000):],
                    "availability": {"hour": 0.99, "day": 1, "month": 0.5,
                                     "watched_us": {"hour": 3600000000, "day": 86400000000, "month": 86400000000}},
                    "flaps": 1,
                    "counters": {"changes": 2, "flaps": 1, "watched_us": 9, "enabled_us": 8, "disabled_us": 1,
                                 "waiting_us": 0, "rejected_us": 0, "results": 10, "lost": 1, "rtt_samples": 3}}
        if op == "samples":
            return {"samples": self.samples}
        return {"added": 1, "changed": 0, "removed": 0}
