import pytest

from support.bundle import APPLICATIONS, JDKS, MODES, SECOND_APPLICATIONS, Bundle, java_version

HOMES = {"system-wide": "", "per-user": "/Users/alice", "second JDK": "/Users/bob"}


@pytest.fixture(scope="session", autouse=True)
def jdks(record_testsuite_property):
    """Says in the results which JDKs the suite runs over."""
    places = [APPLICATIONS, SECOND_APPLICATIONS][: len(JDKS)]
    versions = [java_version(place) for place in places if place.exists()]
    none = ["no second one in /usr/lib/jvm or named by SECOND_JDK"][len(JDKS) - 1 :]
    record_testsuite_property("JDK", ", ".join(versions + none))


def installed(root, name):
    bundle = Bundle(root, HOMES[name])
    if not bundle.app.exists():
        source = SECOND_APPLICATIONS if name == "second JDK" else APPLICATIONS
        assert source.exists(), f"no bundle: make it with script/bundle --dest {source}"
        root.copy(source / bundle.app.name, bundle.app)
    return bundle


@pytest.fixture(scope="module", params=MODES)
def bundle(request, module_root):
    """The bundle as installed: no test changes it."""
    return installed(module_root, request.param)


@pytest.fixture(params=JDKS)
def copied(request, module_root, root):
    """A copy of the bundle for the test to change."""
    return installed(module_root, request.param).copy(root, "/Users/carol")
