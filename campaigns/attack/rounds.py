"""One attacked run, whoever attacks it: the scene before, the verdict after."""

import os
from dataclasses import dataclass, field

from common import installation, products

from attack import decoys, runs, scenes, world

OTHER_OWNER = (decoys.OTHER_ACCOUNT, runs.STAFF)


@dataclass
class Verdict:
    """What came of one attacked run."""

    point: str                  # repeats the round: ./dev attack --repeat POINT
    command: str
    said: str
    disturbed: bool             # refused where it would have succeeded, or an exchanged object was in place
    refused: bool
    faults: list = field(default_factory=list)

    def as_list(self):
        return [self.point, self.command, self.said, self.disturbed, self.refused, self.faults]


def bystanders():
    paths = [products.in_scope("user", relative) for relative in (*installation.BYSTANDERS, "Music/Song.txt")]
    return [path for path in paths if os.path.lexists(path)]


def enter(scenario):
    """Puts the scenario's scene and the files of others in place; returns a maker of decoys."""
    scenario.enter()
    world.place_neighbours()
    decoys.clear()
    return decoys.Maker()


def own_bystanders_by_another():
    """So that attackers who disturb whatever they come across cannot change them: only the tool could."""
    for path in bystanders():
        os.chown(path, *OTHER_OWNER)
        os.chmod(path, 0o644)


def contents_at_system(scenario):
    """What products' files in the system scope may hold, or None where the run has no business there."""
    if not scenario.involves_system:
        return None
    packages = [*scenes.packages_of(scenes.NEW_REVISION, (scenes.ALPHA, scenes.BETA)), *scenes.ALPHA_OLD.packages]
    return {content for package in packages for content in package.files.values()}


def judge(point, scenario, guard, outcome, met):
    """Compares everything after a run; `met` tells whether it has come across an exchanged object for sure."""
    faults = world.ending_faults(scenario.words, outcome)
    faults += guard.faults(contents_at_system(scenario))
    faults += world.search_as_account()
    if world.SECRET.search(outcome.stdout + outcome.stderr):
        faults.append("secret bytes in the output")
    refused = outcome.ended == "exit" and outcome.status != 0
    disturbed = met or (refused and scenario.status == 0)
    return Verdict(point, scenario.words[0], outcome.says(), disturbed, refused, faults)
