"""Tests of kelo-monitord on simulated boards. Run them with "pytest example_test.py"."""

import pytest

pytest_plugins = ["kelo_board"]


def test_a_short_press_reboots(board):
    board.press()
    board.expect_mode("reboot")
    board.expect_calls("reboot")


def test_locating_flashes_the_halves_in_turn(board):
    board.mode("locateme")
    board.expect_blink("111000", "000000", "000111", "000000", period="1s")


@pytest.mark.parametrize("dbm, leds", [(-9, "111000"), (-20, "110000"), (-35, "000100")])
def test_the_bar_shows_the_received_power(board, dbm, leds):
    board.set_laser(dbm)
    board.expect_leds(leds)


def test_a_wan_address_is_stored_before_omci_runs(board):
    board.ip("-6", "addr", "add", "2001:db8::1/64", "dev", "nas0_0", "nodad")
    board.expect_store("wanAddress", "2001:db8::1")
    board.expect_order("store", "wanAddress", "omci")


def test_a_failure_says_what_there_was_instead(board):
    with pytest.raises(AssertionError, match="expected mode ledtest within 1s, saw mode signal"):
        board.expect_mode("ledtest", within="1s")
