"""dmmrktcmphistory driven by name: one run of a campaign."""
import campaign_record_checks as checks

checks.define_tests(globals(), "dmmrktcmphistory", "DMMRKTCMPHISTORY",
                    [("CampaignRecID", "text"), ("EffectiveDate", "date"), ("RecID", "text"),
                     ("RunDate", "date")])
