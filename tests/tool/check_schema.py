"""The scene schema accepts the demo and example scenes and refuses an
unknown field, so that editors and the program agree."""
import json
import sys

import jsonschema

root = sys.argv[1]
with open(f"{root}/docs/scene.schema.json", encoding="utf-8") as f:
    validator = jsonschema.Draft202012Validator(json.load(f))
for scene in ["data/demo/scene.json", "docs/examples/ticker.json", "docs/examples/chat.json"]:
    with open(f"{root}/{scene}", encoding="utf-8") as f:
        validator.validate(json.load(f))
if validator.is_valid({"subtitles": [], "colour": "#FFFFFF"}):
    sys.exit("the schema accepts an unknown field")
