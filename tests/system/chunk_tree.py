"""What Btrfs' own tool shows of a chunk tree."""

import re


def metadata_chunks(dump):
    """Metadata and system chunks of a Btrfs on one device, from "btrfs inspect-internal dump-tree --tree chunk"."""
    chunks = []
    for item in re.split(r"\n\titem ", dump)[1:]:
        key = re.search(r"CHUNK_ITEM (\d+)\)", item)
        types = re.search(r" type (\S+)", item)
        if key is None or not {"SYSTEM", "METADATA"} & set(types[1].split("|")):
            continue
        kind = "mixed" if "DATA" in types[1].split("|") else "system" if "SYSTEM" in types[1] else "metadata"
        chunks.append({"logical_offset": int(key[1]), "size": int(re.search(r"length (\d+)", item)[1]),
                       "type": kind, "profile": "DUP" if "DUP" in types[1] else "single",
                       "device_offsets": [int(offset) for offset in re.findall(r"devid \d+ offset (\d+)", item)]})
    return chunks
