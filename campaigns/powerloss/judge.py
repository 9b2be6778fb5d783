"""Puts states of a scenario on disk, goes on as the documents say, and judges what comes of it."""

import functools
import os

from common import going_on, products, scenarios, scene, tool, wholeness
from powerloss import recording, states

BACK = "/back"
# Made again by the next command, and without content.
_REMADE = {products.in_scope(scope, f"{products.MAINTENANCE}/maintenance.lock") for scope in ("user", "system")}


class Bench:
    """A disk on which the states of one scenario are examined one after the other."""

    def __init__(self, name):
        self._made = scenarios.scenario(name)
        self.can_go_back = (self._made.command in ("prepare-move", "commit-move")
                            and self._made.outcome.status == 0)
        self.recorded = recorded(name)
        going_on.GoingOn(self._made, lambda fault: None, self.can_go_back)  # makes its scenes
        self._made.enter()
        self._present = self._made.start
        self._linked = {}
        self._kept = {path for path in self._made.start if wholeness.is_temporary(path)}

    def states(self, without=()):
        return states.all_states(self._made, self.recorded, without)

    def state(self, text, without=()):
        return states.one_state(self._made, self.recorded, text, without)

    def examine(self, state, back=False):
        """Goes on from a state, or goes back. Returns one line for each thing that should not be."""
        faults = self.faults_in(state)
        self._put(state)
        fingerprints = self._made.fingerprints()
        met = self._go(back)
        self._present = scene.capture()
        faults += met + going_on.judge_moment(self._made, fingerprints, "at the end", self._present, self._kept)
        return faults

    def faults_in(self, state):
        """Returns one line for each thing that should not be in a state itself."""
        faults = [f"after the cut: {line}" for line in self._made.judge.faults(state.scene)]
        return faults + self._lost_at_the_end(state)

    def _go(self, back):
        faults = []
        way = going_on.GoingOn(self._made, faults.append, back)
        if back:
            way.go_back()
        else:
            way.go_on()
        return faults

    def _put(self, state):
        for path in self._linked:
            if self._present.pop(path, None):
                os.unlink(path)
        scene.transform(self._present, state.scene)
        for path, first in state.links.items():
            os.unlink(path)
            os.link(first, path)
        self._linked = state.links

    def _lost_at_the_end(self, state):
        """A command that has reported success has nothing left to lose."""
        if not state.last or self._made.outcome.status != 0:
            return []
        different = scene.differences(_without_remade(self.recorded.after), _without_remade(state.scene))
        return ["reported as done, but not durable: " + line for line in different]


def _without_remade(found):
    return {path: entry for path, entry in found.items() if path not in _REMADE}


@functools.cache
def recorded(name):
    """The recording of a scenario."""
    return recording.record(scenarios.scenario(name))


def install(build):
    """Makes the root ready for benches."""
    tool.install_tools(build)
    if os.path.exists(recording.LOG):
        os.unlink(recording.LOG)
