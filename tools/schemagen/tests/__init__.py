"""Tests of the schema generator; run from tools/schemagen with
python3 -m unittest discover -s tests -t ."""
