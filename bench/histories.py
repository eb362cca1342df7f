"""Checks histories of a register: whether each operation can have happened at one moment between its call and its answer,
and all of them one after the other (linearizability). bench/attacks makes such histories.
"""

import collections

Operation = collections.namedtuple("Operation", "begun ended change value")
"""begun, ended: seconds; no end: nobody knows whether this change was made, and it may be made at any time after its
beginning, or never. value: what was read or written; of a change without an end None, where the server makes the value,
which is then one that no other change makes."""


class Unexplained(Exception):
    """An operation that cannot have happened so."""


class State(collections.namedtuple("State", "value done used")):
    """A way to explain what came so far. done: the operations in progress that have happened. used: the values of the
    changes of unknown outcome that were made."""

    def doing(self, number, value, *used):
        return State(value, self.done | {number}, tuple(sorted((*self.used, *used), key=str)))


class Check:
    """Goes through a history from its beginning, and keeps all the states that explain it so far. A change of unknown
    outcome is made only just before an operation that reads its value: sooner it would show nothing."""

    def __init__(self, first, operations):
        self.operations, self.running, self.unknown = operations, set(), collections.Counter()
        self.known = {first, *(one.value for one in operations if one.change)}
        self.states = {State(first, frozenset(), ())}
        calls = [(one.begun, 0, number) for number, one in enumerate(operations)]
        answers = [(one.ended, 1, number) for number, one in enumerate(operations) if one.ended is not None]
        for _, answered, number in sorted(calls + answers):
            if answered:
                self._answer(number)
            elif operations[number].ended is None:
                self.unknown[operations[number].value] += 1
            else:
                self.running.add(number)

    def _available(self, value, used):
        """Whether a change of unknown outcome is left that can have written this."""
        if value in self.known:
            return used.count(value) < self.unknown[value]
        return value not in used and len(set(used) - self.known) < self.unknown[None]

    def _next(self, state):
        for number in self.running - state.done:
            one = self.operations[number]
            if one.change or one.value == state.value:
                yield state.doing(number, one.value)
            elif self._available(one.value, state.used):
                yield state.doing(number, one.value, one.value)

    def _reachable(self):
        found, new = set(self.states), list(self.states)
        while new:
            state = new.pop()
            for other in self._next(state):
                if other not in found:
                    found.add(other)
                    new.append(other)
        return found

    def _answer(self, number):
        explained = [state for state in self._reachable() if number in state.done]
        if not explained:
            raise Unexplained(self.operations[number])
        self.running.remove(number)
        fewest = {}  # of states that differ only in what they used, one with less can do all that one with more can
        for value, done, used in explained:
            fewest.setdefault((value, done - {number}), []).append(collections.Counter(used))
        self.states = {
            State(value, done, tuple(sorted(used.elements(), key=str)))
            for (value, done), all_used in fewest.items()
            for used in all_used
            if not any(other < used for other in all_used)
        }


def explains(first, operations):
    """Whether a register that held `first` at the beginning can have behaved so; if not, says which operation is wrong."""
    try:
        Check(first, operations)
    except Unexplained as wrong:
        return False, wrong.args[0]
    return True, None


def read(begun, ended, value):
    return Operation(begun, ended, False, value)


def write(begun, ended, value=None):
    return Operation(begun, ended, True, value)


RIGHT = {
    "one after the other": [write(0, 1, "a"), read(2, 3, "a"), write(4, 5, "b"), read(6, 7, "b")],
    "at once": [write(0, 9, "a"), write(0, 9, "b"), read(1, 2, "b"), read(3, 4, "a"), read(10, 11, "a")],
    "unknown, made late": [
        write(0, None, "a"),
        read(1, 2, "first"),
        write(3, 4, "b"),
        read(5, 6, "b"),
        read(7, 8, "a"),
    ],
    "unknown, never made": [write(0, None, "a"), read(1, 2, "first"), write(3, None), read(4, 5, "first")],
    "unknown, seen by its value only": [write(0, None), read(1, 2, "new"), read(3, 4, "new")],
}
WRONG = {
    "a stale read": [write(0, 1, "a"), write(2, 3, "b"), read(4, 5, "a")],
    "a read of the future": [read(0, 1, "a"), write(2, 3, "a")],
    "a lost change": [write(0, 1, "a"), read(2, 3, "a"), read(4, 5, "first")],
    "two orders": [write(0, 9, "a"), write(0, 9, "b"), read(1, 2, "b"), read(3, 4, "a"), read(5, 6, "b")],
    "a change made twice": [write(0, 1, "b"), read(0, 1, "a"), read(2, 3, "b")],
    "an unknown change made twice": [write(0, None, "a"), read(1, 2, "a"), write(3, 4, "b"), read(5, 6, "a")],
    "an unknown change of two values": [write(0, None), read(1, 2, "a"), read(3, 4, "b")],
    "an unknown change before its call": [read(0, 1, "a"), write(2, None, "a")],
}
