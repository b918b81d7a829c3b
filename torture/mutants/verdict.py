"""Whether the tests notice a mutant."""
import os

import trial
from woven import key_of

SECONDS_AT_LEAST = 20  # a loaded machine is no fault
TIMES_AS_LONG = 5


class Verdicts:
    def __init__(self, tree, survey, results):
        self.tree = tree
        self.survey = survey
        self.results = results

    def is_noticed(self, mutant):
        """What was noticed once stays so while the file is the same; what was not is tried again when
        a test program has changed."""
        source = trial.short_digest(self.tree.plain[mutant.path])
        known = self.results.get("verdicts", key_of(mutant))
        if known and known["source"] == source and (known["how"] or known["tests"] == self.programs()):
            return bool(known["how"])
        how = self.try_out(mutant)
        self.results.put("verdicts", key_of(mutant), {"source": source, "how": how, "tests": self.programs()})
        return bool(how)

    def programs(self):
        return " ".join(self.survey.digests.values())

    def try_out(self, mutant):
        """By which program and test it was noticed, and how; nothing when it was not."""
        for program, tests in self.survey.who_can_notice(mutant.number):
            limit = SECONDS_AT_LEAST + TIMES_AS_LONG * sum(tests.values())
            ended, test, _ = trial.run(program, sorted(tests), limit, {"TARV_MUTANT": str(mutant.number)})
            if ended != "passed" and self.is_its_fault(program, test, ended):
                return f"{os.path.basename(program)}: {test} {ended}"
        return ""

    def is_its_fault(self, program, test, ended):
        """A test that fails without the mutant, too, has noticed nothing."""
        if ended == "hung" or not test:
            return True
        return trial.run(program, [test], 4 * SECONDS_AT_LEAST, {})[0] == "passed"
