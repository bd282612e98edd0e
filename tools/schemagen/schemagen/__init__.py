"""Generator of the database tree's interfaces, enumerations and metadata.

The schema file under resources/schema/ is the one description of the tree.
parse reads it into declarations that keep their line numbers, model resolves
and validates them, and each backend turns the model into one output text.
"""
