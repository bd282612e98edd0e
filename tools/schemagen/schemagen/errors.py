"""Errors of the schema generator.

Every problem found in a schema file is reported with the file name and the
line it stands on, in the form "FILE:LINE: message", so that editors and build
logs can jump to it. Parse and model collect all problems they find and raise
them together.
"""


class SchemaError(Exception):
    """One or more problems of a schema file.

    problems: list of (file, line, message) tuples in the order found.
    """

    def __init__(self, problems):
        self.problems = list(problems)
        super().__init__("\n".join(self.lines()))

    def lines(self):
        return ["%s:%d: %s" % problem for problem in self.problems]


class ProblemList:
    """Collects problems; raise_if_any() raises them as one SchemaError."""

    def __init__(self, filename):
        self.filename = filename
        self.problems = []

    def add(self, line, message):
        self.problems.append((self.filename, line, message))

    def raise_if_any(self):
        if self.problems:
            raise SchemaError(self.problems)
