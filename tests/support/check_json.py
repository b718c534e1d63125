# Reads JSON documents with Python's json module (duplicate keys refused) and
# validates them against a JSON Schema. Used by support/JsonCheck.cpp.
#   python3 check_json.py SCHEMA DOCUMENT...
# Exit 0: all valid; 1: a document is not; 3: python3-jsonschema is missing.
import json
import sys

try:
    import jsonschema
except ImportError as e:
    print("python3-jsonschema is missing:", e)
    sys.exit(3)


def no_duplicates(pairs):
    keys = [k for k, _ in pairs]
    dups = sorted({k for k in keys if keys.count(k) > 1})
    if dups:
        raise ValueError("duplicate keys %s" % dups)
    return dict(pairs)


validator = jsonschema.Draft202012Validator(json.load(open(sys.argv[1])))
for path in sys.argv[2:]:
    try:
        validator.validate(json.load(open(path), object_pairs_hook=no_duplicates))
    except Exception as e:
        print(path, ":", str(e)[:2000])
        sys.exit(1)
