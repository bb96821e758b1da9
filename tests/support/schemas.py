"""Schemas as the tests hold answers to them: what a schema does not name may not be there. For others it may: members are
added over time."""

import json

import jsonschema

# In these a schema asks, and does not describe.
QUESTIONS = ("if", "then", "else", "not", "allOf")


def closed(schema):
    if isinstance(schema, list):
        return [closed(one) for one in schema]
    if not isinstance(schema, dict):
        return schema
    whole = {}
    for name, part in schema.items():
        if name in ("properties", "$defs"):
            whole[name] = {member: closed(one) for member, one in part.items()}
        else:
            whole[name] = part if name in QUESTIONS else closed(part)
    if "properties" in schema:
        whole.setdefault("additionalProperties", False)
    return whole


def check(value, path, part=None):
    """Raises jsonschema.ValidationError where the value is not as the schema says, or as a part of it does."""
    with open(path) as file:
        schema = json.load(file)
    kind = jsonschema.validators.validator_for(schema)
    kind.check_schema(schema)
    schema = closed(schema)
    if part:
        schema = {"$schema": schema["$schema"], "$ref": f"#/$defs/{part}", "$defs": schema["$defs"]}
    kind(schema).validate(value)
