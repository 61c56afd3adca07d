"""A setup information file: sections of lines, each a key and its values, with the strings put in.

Names of sections and keys are compared without regard to case. A line without a key (a file to copy, a registry value
to add) has the key None.
"""

from dataclasses import dataclass

# A directory id, as %13%, is not a string: it stays as it is written.
DRIVER_STORE = "%13%"


class InfError(Exception):
    """The text is not a setup information file."""


@dataclass
class Line:
    number: int
    key: str | None
    values: list


def split(text, separator, number):
    """The parts of `text` between separators outside quotes."""
    parts, quoted, start = [], False, 0
    for at, character in enumerate(text):
        if character == '"':
            quoted = not quoted
        elif character == separator and not quoted:
            parts.append(text[start:at])
            start = at + 1
    if quoted:
        raise InfError(f"line {number}: a quote is not closed")
    return [*parts, text[start:]]


class Inf:
    """Parsed view of `text`; `sections` maps names in lower case to lists of lines."""

    def __init__(self, text):
        self.sections = {}
        self.names = {}
        self._parse(text)
        self._strings = {}
        for line in self.section("Strings"):
            if line.key is None:
                raise InfError(f"line {line.number}: not a string")
            self._strings[line.key.lower()] = line.values[0]
        for lines in self.sections.values():
            for line in lines:
                line.values = [self._expand(value, line.number) for value in line.values]
                if line.key is not None:
                    line.key = self._expand(line.key, line.number)

    def _parse(self, text):
        section, pending = None, ""
        for number, raw in enumerate(text.splitlines(), 1):
            line = pending + split(raw, ";", number)[0].strip()
            pending = ""
            if line.endswith("\\"):
                pending = line[:-1]
            elif line.startswith("["):
                if not line.endswith("]"):
                    raise InfError(f"line {number}: a section's name is not closed")
                name = line[1:-1].strip()
                self.names.setdefault(name.lower(), name)
                section = self.sections.setdefault(name.lower(), [])
            elif line and section is None:
                raise InfError(f"line {number}: before the first section")
            elif line:
                section.append(self._line(line, number))

    @staticmethod
    def _line(text, number):
        key, *rest = split(text, "=", number)
        values = "=".join(rest) if rest else key
        values = [Inf._unquote(value.strip()) for value in split(values, ",", number)]
        return Line(number, Inf._unquote(key.strip()) if rest else None, values)

    @staticmethod
    def _unquote(text):
        if len(text) >= 2 and text[0] == text[-1] == '"':
            return text[1:-1].replace('""', '"')
        return text

    def _expand(self, text, number):
        parts = text.split("%")
        if len(parts) % 2 == 0:
            raise InfError(f"line {number}: a % without its like")
        for at in range(1, len(parts), 2):
            name = parts[at].lower()
            if name in self._strings:
                parts[at] = self._strings[name]
            elif name.isdigit():
                parts[at] = f"%{name}%"
            else:
                raise InfError(f"line {number}: no string %{parts[at]}%")
        return "".join(parts)

    def section(self, name):
        return self.sections.get(name.lower(), [])

    def values(self, section, key):
        """All lines of a section with that key, their values joined."""
        wanted = key.lower()
        lines = [line for line in self.section(section) if line.key is not None and line.key.lower() == wanted]
        return [value for line in lines for value in line.values]

    def value(self, section, key):
        """The first value with that key, or an empty string."""
        return next(iter(self.values(section, key)), "")

    def model_sections(self):
        """Names of the models' sections, decorated as the manufacturers' lines say."""
        for line in self.section("Manufacturer"):
            name, *decorations = line.values
            yield from (f"{name}.{decoration}" for decoration in decorations) if decorations else (name,)

    def devices(self):
        """(section that installs, ids) of every device."""
        for models in self.model_sections():
            for line in self.section(models):
                yield line.values[0], line.values[1:]
