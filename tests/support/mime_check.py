"""Describes a received message as Python's email package parses it.

Prints, for the message file given: whether it is multipart, its top-level
headers in order, the number of defects the parser found, and one line per
part (the message itself when it is not multipart) with the content type,
disposition, file name, content ID, decoded size and SHA-256 of the decoded
payload. The SMTP integration tests compare that with what they sent.
"""
import email
import email.policy
import hashlib
import sys


def describe(part, index):
    payload = part.get_payload(decode=True) or b""
    disposition = part.get_content_disposition() or "-"
    print("part %d type=%s disposition=%s filename=%s cid=%s size=%d sha256=%s" % (
        index, part.get_content_type(), disposition, part.get_filename() or "-",
        part.get("Content-ID", "-"), len(payload), hashlib.sha256(payload).hexdigest()))


def main():
    with open(sys.argv[1], "rb") as f:
        message = email.message_from_bytes(f.read(), policy=email.policy.compat32)
    print("multipart %d" % (1 if message.is_multipart() else 0))
    for name, value in message.items():
        print("header %s: %s" % (name, value.replace("\r\n", "\n")))
    defects = list(message.defects)
    if message.is_multipart():
        for part in message.get_payload():
            defects += part.defects
    print("defects %d" % len(defects))
    if message.is_multipart():
        for i, part in enumerate(message.get_payload()):
            describe(part, i)
    else:
        describe(message, 0)


if __name__ == "__main__":
    main()
