#!/usr/bin/python3
"""read_mail.py FILE: what Python's mail parser sees in a message, as JSON."""
import email
import email.policy
import json
import sys

with open(sys.argv[1], "rb") as file:
    mail = email.message_from_binary_file(file, policy=email.policy.default)
parts = [part for part in mail.walk() if not part.is_multipart()]
bodies = {part.get_content_subtype(): part.get_content() for part in parts}
json.dump({
    "headers": [[name, str(value)] for name, value in mail.items()],
    "defects": [str(defect) for part in mail.walk() for defect in part.defects]
               + [str(defect) for value in mail.values() for defect in value.defects],
    "types": [part.get_content_type() for part in mail.walk()],
    "text": bodies.get("plain"), "html": bodies.get("html"),
}, sys.stdout)
