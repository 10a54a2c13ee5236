"""Where the compiled halves of the virtual hardware are."""

import os
import pathlib
import sysconfig

PROJECT = pathlib.Path(__file__).resolve().parents[2]


def build_dir() -> pathlib.Path:
    """The build tree: $VORBEL_BUILD_DIR, or that of the release preset."""
    return pathlib.Path(os.environ.get("VORBEL_BUILD_DIR", PROJECT / "build" / "release")).resolve()


def adapter_library() -> pathlib.Path:
    return _existing(build_dir() / "sim" / "libvorbel_sim_adapter.so")


def faults_library() -> pathlib.Path:
    return _existing(build_dir() / "sim" / "libvorbel_sim_faults.so")


def clock_library() -> pathlib.Path:
    return _existing(build_dir() / "sim" / "libvorbel_sim_clock.so")


def sanitizer_options() -> str:
    """AddressSanitizer's runtime otherwise refuses to start behind a preloaded library."""
    return joined(":", os.environ.get("ASAN_OPTIONS"), "verify_asan_link_order=0")


def can_plugin_path() -> pathlib.Path:
    return _existing(build_dir() / "sim" / "plugins")


def stock_plugin_path() -> pathlib.Path:
    """Debian's own Qt plugins."""
    return pathlib.Path("/usr/lib") / sysconfig.get_config_var("MULTIARCH") / "qt5" / "plugins"


def joined(separator: str, *parts) -> str:
    """The parts that are not empty, for environment variables that hold lists."""
    return separator.join(str(part) for part in parts if part)


def _existing(path: pathlib.Path) -> pathlib.Path:
    if not path.exists():
        raise FileNotFoundError(f"{path} is missing: build the project first")
    return path
