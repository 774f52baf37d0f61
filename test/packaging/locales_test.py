"""--include-locales: what is no language is found before anything is made."""

import pytest
from bundler.errors import UserError
from bundler.jdk import find_jdk
from bundler.locales import check_locales
from bundling import JDK


@pytest.fixture(scope="module")
def jdk():
    return find_jdk(JDK, None, {})


@pytest.mark.parametrize(
    "tags", ["de", "de,fr,ja", "pt-BR", "zh-Hans", "zh-Hant-TW", "*-CH", "iw,he,DE"]
)
def test_tags_of_languages_that_the_JDK_has_are_right(jdk, tags):
    check_locales(tags, jdk)


@pytest.mark.parametrize(
    "tags, wrong",
    [
        ("de,xx", "xx"),
        ("german", "german"),
        ("de-CN", "de-CN"),
        ("de, fr,e n", "e n"),
        ("de,,fr", ""),
        ("zh-Latin", "zh-Latin"),
        ("de_DE", "de_DE"),
    ],
)
def test_a_tag_that_the_JDK_has_no_data_for_is_named(jdk, tags, wrong):
    with pytest.raises(UserError) as raised:
        check_locales(tags, jdk)
    assert str(raised.value) == (
        f"--include-locales: the JDK has no data of '{wrong}'; give language tags, separated by commas, "
        "such as de,pt-BR,zh-Hans,*-CH"
    )
