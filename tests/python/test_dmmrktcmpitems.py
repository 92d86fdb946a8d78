"""dmmrktcmpitems driven by name: one message of a campaign."""
import campaign_record_checks as checks

checks.define_tests(globals(), "dmmrktcmpitems", "DMMRKTCMPITEMS",
                    [("CampaignRecID", "text"), ("Description", "text"), ("Interval", "long"),
                     ("MessageFileName", "text"), ("RecID", "text")])
