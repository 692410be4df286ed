"""What can be chosen on a source, and what is."""

from __future__ import annotations

from collections.abc import Iterator, Mapping
from typing import TYPE_CHECKING
from xml.etree import ElementTree
from xml.sax.saxutils import quoteattr

if TYPE_CHECKING:
    from brv._library import Source

VIDEO_SETTINGS = "Video Settings"  #: the capture format of pictures
VIDEO_FPS = "Video FPS"            #: the frame rates of that format
AUDIO_SETTINGS = "Audio Settings"  #: the format of sound
_NAMES = (VIDEO_SETTINGS, VIDEO_FPS, AUDIO_SETTINGS)


class Settings(Mapping[str, int | None]):
    """The three parameters of a source, each with the index of what is chosen; None where that is not known.

        source.settings["Video Settings"] = "1280 x 720"   # by title, or by index
        source.settings.update({"Video Settings": 1, "Video FPS": 0})
    """

    def __init__(self, source: Source) -> None:
        self._source = source

    def __getitem__(self, parameter: str) -> int | None:
        return self._selected()[parameter]

    def __iter__(self) -> Iterator[str]:
        return iter(_NAMES)

    def __len__(self) -> int:
        return len(_NAMES)

    def options(self, parameter: str) -> list[str]:
        """The titles of what can be chosen; where there is nothing to choose, one that says so."""
        return [_field(option.find("record[@name='title']"), "value") or ""
                for option in ElementTree.fromstring(self._source._options_text(parameter)).iter("record")
                if option.get("name") == "option"]

    def __setitem__(self, parameter: str, choice: int | str) -> None:
        self.update({parameter: choice})

    def update(self, choices: Mapping[str, int | str]) -> None:
        """Makes the choices in their order. Blocks for 100 ms for each.

        Raises KeyError for an unknown parameter, ValueError for a choice that there is not, CaptureError with the
        module's reason when the device refuses.
        """
        # One record each: what can be chosen depends on what has been.
        for parameter, choice in choices.items():
            if parameter not in _NAMES:
                raise KeyError(parameter)
            self._source._set(f'<record name="settings"><record name="parameter">'
                              f'<text name="name" value={quoteattr(parameter)}/>'
                              f'<int32 name="value" value="{self._index(parameter, choice)}"/></record></record>')

    def _index(self, parameter: str, choice: int | str) -> int:
        titles = self.options(parameter)
        if isinstance(choice, str) and titles.count(choice) == 1:
            return titles.index(choice)
        if isinstance(choice, int) and 0 <= choice < len(titles):
            return choice
        raise ValueError(f"{choice!r} is not one choice of {parameter}; there are: {', '.join(titles)}")

    def _selected(self) -> dict[str, int | None]:
        selected: dict[str, int | None] = dict.fromkeys(_NAMES)
        for parameter in ElementTree.fromstring(self._source._settings_text()).iter("record"):
            if parameter.get("name") == "parameter":
                selected[_field(parameter, "name") or ""] = int(_field(parameter, "value") or 0)
        return selected


def _field(record: ElementTree.Element | None, name: str) -> str | None:
    field = None if record is None else record.find(f"*[@name='{name}']")
    return None if field is None else field.get("value")
