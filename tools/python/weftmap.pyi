"""Weftmap image synthesis on numpy arrays."""

import os
from typing import Callable, Literal, Mapping, Optional, Union

import numpy as np
import numpy.typing as npt

__version__: str

# uint8, uint16 or float32 (float16 and float64 are worked on as float32).
_Picture = npt.NDArray[Union[np.uint8, np.uint16, np.floating]]
# bool (True = in) or uint8 (non-zero = in).
_Mask = npt.NDArray[Union[np.bool_, np.uint8]]
_Mode = Literal["hole-fill", "default", "tapestry"]
_Comparator = Literal["translate", "gain-bias"]
_OptionValue = Union[str, int, float, bool, None]
_Path = Union[str, os.PathLike[str]]

def fill(
    image: _Picture,
    mask: _Mask,
    *,
    mode: _Mode = "hole-fill",
    comparator: _Comparator = "translate",
    options: Optional[Mapping[str, _OptionValue]] = None,
    seed: Optional[int] = None,
    bands: Optional[int] = None,
    scalar: bool = False,
    memory_limit: Optional[int] = None,
    sample: Optional[_Mask] = None,
    grow: int = 0,
    texture: bool = True,
    mirror: bool = True,
    rows: bool = True,
    progress: Optional[Callable[[float], object]] = None,
    cmyk: bool = False,
) -> _Picture:
    """Fills the hole in a picture with material from the rest of it."""

def retarget(
    image: _Picture,
    width: Optional[int] = None,
    height: Optional[int] = None,
    scale: Optional[float] = None,
    *,
    mode: _Mode = "tapestry",
    comparator: _Comparator = "translate",
    options: Optional[Mapping[str, _OptionValue]] = None,
    seed: Optional[int] = None,
    bands: Optional[int] = None,
    scalar: bool = False,
    memory_limit: Optional[int] = None,
    sample: Optional[_Mask] = None,
    remove: Optional[_Mask] = None,
    progress: Optional[Callable[[float], object]] = None,
    cmyk: bool = False,
) -> _Picture:
    """Gives a picture a new size, keeping its texture and objects at their scale."""

class ImageFile:
    """A picture read from a file."""

    @property
    def pixels(self) -> _Picture: ...
    @property
    def cmyk(self) -> bool: ...
    @property
    def format(self) -> Literal["PNG", "JPEG", "TIFF"]: ...

def read_image(path: _Path) -> ImageFile:
    """Reads a PNG, JPEG or TIFF file into the pixel format that fits it."""

def write_image(path: _Path, pixels: _Picture, cmyk: bool = False) -> str:
    """Writes a picture to a file whose type the extension names."""

def set_memory_limit(bytes: Optional[int]) -> None:
    """Limits the image memory of the whole process; None removes the limit."""

def memory_limit() -> Optional[int]:
    """The process-wide limit of image memory in bytes, None when there is none."""

def memory_in_use() -> int:
    """Bytes of image memory held now, result arrays included."""

class Error(Exception):
    """A failure of Weftmap."""

    code: str
    library_message: str

class InvalidInputError(Error, ValueError):
    """A picture, mask, size or option that cannot be used."""

class HoleTooLargeError(Error):
    """Too little of the picture is left outside the hole to take patches from."""

class MemoryLimitError(Error, MemoryError):
    """The memory limit is too small for the run."""

class CancelledError(Error):
    """The run was cancelled."""

class OutputError(Error, OSError):
    """A file could not be written."""

class InternalError(Error):
    """The library failed in a way the caller cannot fix."""
