"""dmsentitems driven by name: one message sent to one client."""
import campaign_record_checks as checks

checks.define_tests(globals(), "dmsentitems", "DMSENTITEMS",
                    [("Account", "text"), ("CampaignItemRecID", "text"), ("CampaignRecID", "text"),
                     ("HistoryRecID", "text"), ("RecID", "text"), ("SentDate", "date")])
