"""The property lists of the two bundles and of the launchd jobs."""

import plistlib


def write_property_lists(app, service, product, minimum_macos):
    """Writes those of the bundle, of the service bundle in it, and of the two jobs."""
    both = {
        "CFBundleDevelopmentRegion": "en",
        "CFBundleInfoDictionaryVersion": "6.0",
        "CFBundlePackageType": "APPL",
        "CFBundleShortVersionString": product.version,
        "CFBundleVersion": product.version,
        "CFBundleSupportedPlatforms": ["MacOSX"],
        "NSHumanReadableCopyright": product.copyright,
        "LSMinimumSystemVersion": "{}.{}".format(*minimum_macos),
    }
    outer = {**both, "CFBundleName": "Orvane", "CFBundleIdentifier": product.identifier}
    inner = {
        **both,
        "CFBundleName": "OrvaneService",
        "CFBundleIdentifier": product.identifier + ".service",
        "CFBundleExecutable": "OrvaneService",
        "LSBackgroundOnly": True,
        "NSLocalNetworkUsageDescription": "The service connects to devices in your local network.",
    }
    # A daemon's paths are fixed. Those of an agent get the home directory when it is installed.
    directory = f"/Applications/{service.relative_to(app.parent)}/MacOS"
    daemon = job("com.vaultory.service", "", directory, [], product.identifier)
    agent = job(
        "com.vaultory.service.agent",
        "@HOME@",
        directory,
        ["-Duser.install=1"],
        product.identifier,
    )
    write(app / "Contents/Info.plist", outer)
    write(service / "Info.plist", inner)
    write(service / "Resources/launchd/com.vaultory.service.plist", daemon)
    write(service / "Resources/launchd/com.vaultory.service.agent.plist.in", agent)


def job(label, home, directory, arguments, identifier):
    """A launchd job; docs/packaging.md says why it has these values."""
    output = home + "/Library/Logs/OrvaneService.log"
    return {
        "Label": label,
        "AssociatedBundleIdentifiers": identifier,
        "WorkingDirectory": home + directory,
        "ProgramArguments": [f"{home}{directory}/OrvaneService", *arguments],
        "ProcessType": "Standard",
        "RunAtLoad": True,
        "KeepAlive": {"SuccessfulExit": False},
        "ThrottleInterval": 30,
        "ExitTimeOut": 60,
        "StandardOutPath": output,
        "StandardErrorPath": output,
    }


def write(path, keys):
    path.parent.mkdir(parents=True, exist_ok=True)
    path.write_bytes(plistlib.dumps(keys))
