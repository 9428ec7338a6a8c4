"""The JSON Schema for editors and the checker have the same verdict on keys and JSON types."""

import itertools
import json
import os
import random

import jsonschema
import pytest

from checking import findings_of
from testbed import SOURCE_ROOT

# What a schema can say: the shape of the document, not what its texts mean.
SHAPE_KINDS = {"top-level", "top-level-ignored", "element-type", "wrong-type", "odd-type", "unknown-key",
               "translate-value"}
VALUES = [None, True, False, 0, 1, -1, 7, 1.0, 1.5, -0.5, 4294967295, 4294967296, 2**63, 2**64, 1e300, "", "x", "5",
          [], ["x"], {}, {"1": "x"}, {"1": 5}, {"1": None}, {"*": "x", "1": ["x"]}]
KEYS = ["name", "interface", "objectpath", "path", "location", "offset", "length", "type", "read", "write", "signal",
        "translate"]


@pytest.fixture(scope="module")
def validator():
    """The schema, which itself has to be one."""
    with open(os.path.join(SOURCE_ROOT, "data", "korvaneinfod.schema.json"), encoding="utf-8") as file:
        schema = json.load(file)
    jsonschema.Draft7Validator.check_schema(schema)
    return jsonschema.Draft7Validator(schema)


def elements_by_schema(validator, document):
    """Returns the positions of the elements that the schema refuses; None stands for the document."""
    return {error.absolute_path[0] if error.absolute_path else None for error in validator.iter_errors(document)}


def elements_by_check(document, folder):
    """Returns the same of the checker."""
    (folder / "board.json").write_text(json.dumps(document))
    return {finding["element"] for finding in findings_of("--no-values", "board.json", cwd=folder)
            if finding["kind"] in SHAPE_KINDS}


def test_every_key_with_every_type_of_value(validator, tmp_path):
    keys = [*KEYS, "objectPath", "Name", "comment", ""]
    document = [{key: value, "location": location} if key != "location" else {key: value}
                for key, value, location in itertools.product(keys, VALUES, ["par", "fuses"])]
    assert elements_by_check(document, tmp_path) == elements_by_schema(validator, document)


def test_elements_and_documents_of_every_type(validator, tmp_path):
    assert elements_by_check(VALUES, tmp_path) == elements_by_schema(validator, VALUES)
    for document in VALUES:
        assert elements_by_check(document, tmp_path) == elements_by_schema(validator, document), document


def test_random_elements(validator, tmp_path):
    seed = random.SystemRandom().randrange(10**9)
    choice = random.Random(seed)
    document = [{key: choice.choice(VALUES) for key in choice.sample(KEYS + ["other"], choice.randrange(5))}
                for _ in range(3000)]
    by_schema = elements_by_schema(validator, document)
    assert 500 < len(by_schema) < 2950
    assert elements_by_check(document, tmp_path) == by_schema, f"seed {seed}"


def test_schema_names_every_key_that_the_daemon_reads(validator):
    assert sorted(validator.schema["items"]["properties"]) == sorted(KEYS)
