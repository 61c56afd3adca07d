"""A driver package's catalog: the digests of its files and the device ids it is for, in a list that is then signed.

The layout is that of a catalog of version 1, the version that Windows' own tools write by default: a member is named
after its SHA-1, in hexadecimal, and has the digest once more with what kind of file it is. An image's digest leaves out
what signing changes.
"""

import datetime
import hashlib
import os

import der
import pe_image

SIGNED_DATA = "1.2.840.113549.1.7.2"
TRUST_LIST = "1.3.6.1.4.1.311.10.1"
CATALOG_LIST = "1.3.6.1.4.1.311.12.1.1"
MEMBER_BY_SHA1 = "1.3.6.1.4.1.311.12.1.2"
NAME_VALUE = "1.3.6.1.4.1.311.12.2.1"
MEMBER_INFO = "1.3.6.1.4.1.311.12.2.2"
INDIRECT_DATA = "1.3.6.1.4.1.311.2.1.4"
IMAGE_DATA = "1.3.6.1.4.1.311.2.1.15"
FILE_LINK = "1.3.6.1.4.1.311.2.1.25"
SHA1 = "1.3.14.3.2.26"

# Which of the system's modules takes the digest of a member.
IMAGE_SUBJECT = "{C689AAB8-8E78-11D0-8C47-00C04FC295EE}"
FLAT_SUBJECT = "{DE351A42-8E59-11D0-8C47-00C04FC295EE}"
MEMBER_VERSION = 0x200
# Authenticated; name and value are text.
PLAIN_ATTRIBUTE = 0x10010001
NO_LINK = der.context(2, der.context(0, constructed=False))


class CatalogError(Exception):
    """The bytes are not a catalog."""


def digest(name, data):
    if name.endswith((".sys", ".exe")):
        return pe_image.Image(data).signed_digest("sha1")
    return hashlib.sha1(data).digest()


def name_value(name, value):
    text = (value + "\0").encode("utf-16-le")
    return der.sequence(der.bmp_string(name), der.integer(PLAIN_ATTRIBUTE), der.octets(text))


def attribute(kind, value):
    return der.sequence(der.object_id(kind), der.set_of(value))


def member(name, data, system):
    is_image = name.endswith((".sys", ".exe"))
    if is_image:
        link = der.sequence(
            der.object_id(IMAGE_DATA), der.sequence(der.element(der.BIT_STRING, b"\0"), der.context(0, NO_LINK))
        )
    else:
        link = der.sequence(der.object_id(FILE_LINK), NO_LINK)
    value = digest(name, data)
    algorithm = der.sequence(der.object_id(SHA1), der.element(der.NULL))
    subject = IMAGE_SUBJECT if is_image else FLAT_SUBJECT
    tag = (value.hex().upper() + "\0").encode("utf-16-le")
    return der.sequence(
        der.octets(tag),
        der.set_of(
            attribute(NAME_VALUE, name_value("File", name.lower())),
            attribute(NAME_VALUE, name_value("OSAttr", system)),
            attribute(MEMBER_INFO, der.sequence(der.bmp_string(subject), der.integer(MEMBER_VERSION))),
            attribute(INDIRECT_DATA, der.sequence(link, der.sequence(algorithm, der.octets(value)))),
        ),
    )


def make(files, attributes, system):
    """The unsigned catalog of `files`, a mapping of names to contents, for systems as "2:10.0"."""
    now = datetime.datetime.now(datetime.timezone.utc)
    extensions = [
        der.sequence(der.object_id(NAME_VALUE), der.octets(name_value(name, value)))
        for name, value in sorted(attributes.items())
    ]
    trust_list = der.sequence(
        der.sequence(der.object_id(CATALOG_LIST)),
        der.octets(os.urandom(16)),
        der.element(der.UTC_TIME, now.strftime("%y%m%d%H%M%SZ").encode()),
        der.sequence(der.object_id(MEMBER_BY_SHA1), der.element(der.NULL)),
        der.sequence(*sorted(member(name, data, system) for name, data in files.items())),
        der.context(0, der.sequence(*extensions)),
    )
    return der.sequence(
        der.object_id(SIGNED_DATA),
        der.context(
            0,
            der.sequence(
                der.integer(1),
                der.set_of(),
                der.sequence(der.object_id(TRUST_LIST), der.context(0, trust_list)),
                der.set_of(),
            ),
        ),
    )


def read_text(content):
    return content.decode("utf-16-le").rstrip("\0")


def read_name_value(content):
    (_, name), _, (_, value) = der.children(content)
    return name.decode("utf-16-be"), read_text(value)


def read_member(content):
    """(file name, tag, digest) of one member."""
    (_, tag), (_, attributes) = der.children(content)
    values, found = {}, None
    for _, item in der.children(attributes):
        (_, kind), (_, value) = der.children(item)
        ((_, value),) = der.children(value)
        if der.element(der.OBJECT, kind) == der.object_id(NAME_VALUE):
            name, text = read_name_value(value)
            values[name] = text
        elif der.element(der.OBJECT, kind) == der.object_id(INDIRECT_DATA):
            _, (_, with_algorithm) = der.children(value)
            _, (_, found) = der.children(with_algorithm)
    return values["File"], read_text(tag), found


def read(data):
    """Members of a catalog, signed or not, as a list of (name, tag, digest), and the catalog's own attributes."""
    try:
        ((_, content),) = der.children(data)
        _, (_, signed) = der.children(content)
        ((_, signed),) = der.children(signed)
        _, _, (_, inner), *_ = der.children(signed)
        _, (_, inner) = der.children(inner)
        ((_, trust_list),) = der.children(inner)
        _, _, _, _, (_, members), (_, extensions) = der.children(trust_list)
        ((_, extensions),) = der.children(extensions)
        attributes = []
        for _, extension in der.children(extensions):
            _, (_, value) = der.children(extension)
            ((_, value),) = der.children(value)
            attributes.append(read_name_value(value))
        return [read_member(content) for _, content in der.children(members)], dict(attributes)
    except (der.DerError, KeyError, ValueError) as error:
        raise CatalogError(f"not a catalog: {error}") from error
