"""What the commands here that take options have in common."""

import image


def project_version():
    for line in (image.PROJECT / "CMakeLists.txt").read_text().splitlines():
        if line.startswith("project("):
            return line.split()[2]
    return "unknown"
