"""Reads a JSON document strictly (UTF-8, no NaN, no repeated key), optionally checks
it against a JSON Schema, and prints every leaf as one line "path<TAB>value" for C++ tests:
strings as "s:" and the hex of their characters (each below 256), numbers as "n:" and their
value, null, true and false as such. Exit status 1, with the reason, when anything fails."""
import json
import sys


def refuse_constant(name):
    raise ValueError("not JSON: " + name)


def unique_keys(pairs):
    keys = [key for key, _ in pairs]
    if len(set(keys)) != len(keys):
        raise ValueError("duplicate key in %s" % keys)
    return dict(pairs)


def leaves(value, path):
    if isinstance(value, dict):
        for key, item in value.items():
            yield from leaves(item, path + [key])
    elif isinstance(value, list):
        for index, item in enumerate(value):
            yield from leaves(item, path + [str(index)])
    elif value is None:
        yield path, "null"
    elif isinstance(value, bool):
        yield path, "true" if value else "false"
    elif isinstance(value, str):
        yield path, "s:" + value.encode("latin-1").hex()
    else:
        yield path, "n:" + repr(value)


def main():
    with open(sys.argv[1], "rb") as f:
        document = json.loads(f.read().decode("utf-8"), parse_constant=refuse_constant,
                              object_pairs_hook=unique_keys)
    if len(sys.argv) > 2:
        import jsonschema
        with open(sys.argv[2], "rb") as f:
            schema = json.load(f)
        jsonschema.Draft202012Validator(schema).validate(document)
    for path, text in leaves(document, []):
        print(".".join(path) + "\t" + text)


if __name__ == "__main__":
    try:
        main()
    except Exception as e:  # the C++ test shows the reason
        print("json_flat: %s: %s" % (type(e).__name__, e), file=sys.stderr)
        sys.exit(1)
